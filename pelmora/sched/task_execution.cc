#include "pelmora/sched/task_execution.h"

#include "pelmora/sched/sched_errors.h"

namespace pelmora::sched {

uint32_t RunTaskHere(const std::string& /*folder*/, const std::string& /*file_name*/) {
  return kNotImplemented;
}

}  // namespace pelmora::sched
