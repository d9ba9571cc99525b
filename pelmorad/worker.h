// An account worker: the process that serves the requests of one account's sessions, as that
// account's Linux user. The root process starts it (`pelmorad --account-worker`, its link to the
// root process as descriptor kWorkerLinkFd) and sends the set-up: the configuration's text, the
// shared command count and the drive folders it opened. The worker then, before it serves
// anything, drops to the account's user for good (supplementary groups, then real, effective and
// saved group and user), checks that it cannot become root again, sets no-new-privileges and the
// signal that kills it when the root process ends; and from then on serves each session the root
// process passes it, from where the login left it, until the root process closes the link (no
// sessions left), revokes the account (a reload changed it) or stops the service.
#ifndef PELMORAD_WORKER_H_
#define PELMORAD_WORKER_H_

#include "pelmorad/identity.h"

namespace pelmorad {

// The descriptor of a worker's link to the root process.
inline constexpr int kWorkerLinkFd = 3;
// The option that starts pelmorad as a worker.
inline constexpr char kWorkerOption[] = "--account-worker";

// Runs this process as a worker until its link ends; returns the exit status (1 when the set-up
// fails). Call before any thread starts.
int RunWorker();

// Makes this single-threaded process `identity`'s for good: supplementary groups, then the
// real, effective and saved group and user ids. Returns false when any step fails, when what is
// in force afterwards is not exactly `identity`, or when a process that is not root afterwards
// can still make itself root.
bool DropTo(const Identity& identity);

}  // namespace pelmorad

#endif  // PELMORAD_WORKER_H_
