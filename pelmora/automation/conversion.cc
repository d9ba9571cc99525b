#include "pelmora/automation/conversion.h"

#include "pelmora/common/error.h"

namespace pelmora::automation {

void RaiseOverflow() { throw RuntimeError(6); }

void RaiseTypeMismatch() { throw RuntimeError(13); }

}  // namespace pelmora::automation
