#include "pelmorad/win_error.h"

#include "pelmora/common/error_texts.h"

namespace pelmorad {

std::string ErrorText(int32_t code) { return pelmora::DescribeError(code); }

}  // namespace pelmorad
