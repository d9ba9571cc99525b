// The task folder of another computer, reached through the administration service there: the
// service publishes its task folder under the path key "Tasks", and the store reads and writes
// the .job files with the administration client's file requests.
#ifndef PELMORA_SCHED_REMOTE_TASK_STORE_H_
#define PELMORA_SCHED_REMOTE_TASK_STORE_H_

#include <memory>
#include <string>

#include "pelmora/sched/task_store.h"

namespace pelmora::sched {

// Connects to the administration service of `computer` ("\\host"). Raises pelmora::Error
// (source "Pelmora.TaskScheduler") when the computer cannot be reached or the client cannot move
// files. Blocks for the connection and login.
std::shared_ptr<TaskStore> OpenRemoteTaskStore(const std::string& computer);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_REMOTE_TASK_STORE_H_
