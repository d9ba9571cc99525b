// The task folder of another computer, reached through the administration service there: the
// service publishes its task folder under the path key "Tasks", and the store reads and writes
// the .job files with the administration client's file requests.
#ifndef PELMORA_SCHED_REMOTE_TASK_STORE_H_
#define PELMORA_SCHED_REMOTE_TASK_STORE_H_

#include <memory>
#include <string>

#include "pelmora/platform/export.h"
#include "pelmora/sched/task_store.h"

namespace pelmora::sched {

// Connects to the administration service of `computer` ("\\host", or "\\host:port" for a
// service on another port than 8002) and asks it for the folder under the path key "Tasks".
// Raises pelmora::Error (source "Pelmora.TaskScheduler") with the client's error when the
// computer cannot be reached or refuses the login, and 0x80070002 when the service publishes no
// task folder. Blocks for the connection, the login and one request.
PELMORA_API std::shared_ptr<TaskStore> OpenRemoteTaskStore(const std::string& computer);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_REMOTE_TASK_STORE_H_
