#include "pelmora/common/dictionary.h"

#include "pelmora/common/error.h"

namespace pelmora {

std::string FoldKeyCase(std::string_view key) {
  std::string folded(key);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return folded;
}

void RaiseDuplicateKey() { throw RuntimeError(457); }

void RaiseMissingKey() { throw RuntimeError(5); }

}  // namespace pelmora
