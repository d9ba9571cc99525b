// The one error type the library raises.
//
// Classes that raise (WinSock, WinINet, late-bound calls) throw pelmora::Error, which carries the
// error's number, its description and the source that raised it, as automation callers expect:
//
//   try {
//     socket.Connect();
//   } catch (const pelmora::Error& e) {
//     std::cerr << e.Number() << ": " << e.Description() << '\n';  // 10061: No connection ...
//   }
#ifndef PELMORA_COMMON_ERROR_H_
#define PELMORA_COMMON_ERROR_H_

#include <cstdint>
#include <stdexcept>
#include <string>

#include "pelmora/platform/export.h"

namespace pelmora {

// A numbered error with its description and the name of the object or routine that raised it
// (empty when the raiser gives none). what() returns the description.
class PELMORA_API Error : public std::runtime_error {
 public:
  Error(int32_t number, std::string description, std::string source = {});

  int32_t Number() const noexcept { return number_; }
  const std::string& Description() const noexcept { return description_; }
  const std::string& Source() const noexcept { return source_; }

 private:
  int32_t number_;
  std::string description_;
  std::string source_;
};

// An Error for a run-time error number with its standard text: RuntimeError(13) is
// 13 "Type mismatch", RuntimeError(380) is 380 "Invalid property value".
PELMORA_API Error RuntimeError(int32_t number, std::string source = {});

}  // namespace pelmora

#endif  // PELMORA_COMMON_ERROR_H_
