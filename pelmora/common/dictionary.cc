#include "pelmora/common/dictionary.h"

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"

namespace pelmora {

std::string FoldKeyCase(std::string_view key) { return FoldCase(key); }

void RaiseDuplicateKey() { throw RuntimeError(457); }

void RaiseMissingKey() { throw RuntimeError(5); }

}  // namespace pelmora
