#include "pelmora/sched/remote_task_store.h"

#include "pelmora/common/error.h"
#include "pelmora/sched/sched_errors.h"

namespace pelmora::sched {

std::shared_ptr<TaskStore> OpenRemoteTaskStore(const std::string& computer) {
  throw Error(static_cast<int32_t>(kNotImplemented),
              "The tasks of " + computer +
                  " cannot be managed from here: this build's administration client cannot "
                  "move task files.",
              "Pelmora.TaskScheduler");
}

}  // namespace pelmora::sched
