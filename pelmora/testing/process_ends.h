// Waiting, bounded, for a process the test did not start (a detached grandchild) to end.
//
//   EXPECT_TRUE(ProcessEnds(detached, 10000));
#ifndef PELMORA_TESTING_PROCESS_ENDS_H_
#define PELMORA_TESTING_PROCESS_ENDS_H_

#include <sys/types.h>

namespace pelmora::testing {

// True when process `pid` has ended (or is gone) within `milliseconds`; a zombie has ended.
// Blocks at most that long.
bool ProcessEnds(pid_t pid, int milliseconds);

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_PROCESS_ENDS_H_
