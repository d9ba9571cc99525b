// Running one stored task now, in the calling thread: what Task::Run does when no runner watches
// the folder, and what the runner does for each run it starts.
#ifndef PELMORA_SCHED_TASK_EXECUTION_H_
#define PELMORA_SCHED_TASK_EXECUTION_H_

#include <cstdint>
#include <string>

namespace pelmora::sched {

// Runs the task file `file_name` of the local folder `folder` as its user and waits for it
// (at most its MaxRunTime, then its process group is killed), recording the running count, the
// last run time, the start error, the exit code and the status in the file. Returns 0, or the
// result code when the file cannot be read. Blocks for the run.
uint32_t RunTaskHere(const std::string& folder, const std::string& file_name);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TASK_EXECUTION_H_
