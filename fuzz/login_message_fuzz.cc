// Fuzzes the login message parser with the credential decoding the service applies after it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "pelmora/admin/credentials.h"
#include "pelmora/admin/wire.h"

using namespace pelmora::admin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto login = ParseLoginMessage(std::span<const std::uint8_t>(data, size));
  if (!login) return 0;
  PELMORA_FUZZ_CHECK(login->first.size() + 1 + login->second.size() == size);
  PELMORA_FUZZ_CHECK(login->first.find('\n') == std::string::npos);
  auto user = DecodeCredential(login->first);
  PELMORA_FUZZ_CHECK(EncodeCredential(user) == login->first);
  PELMORA_FUZZ_CHECK(BuildLoginMessage(login->first, login->second) ==
                     std::vector<std::uint8_t>(data, data + size));
  return 0;
}
