#include "pelmora/automation/invoker.h"

#include <fmt/format.h>

namespace pelmora::automation::internal {

void CheckDefaultCount(std::string_view member, size_t defaults, size_t parameters) {
  if (defaults > parameters) {
    throw std::invalid_argument(fmt::format("binding of {} gives {} defaults for {} parameters",
                                            member, defaults, parameters));
  }
}

}  // namespace pelmora::automation::internal
