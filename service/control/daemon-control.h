// Starting, stopping and querying the daemon from driftway-control.
#pragma once

#include <sys/types.h>

namespace driftway {

// The running daemon's pid, or 0 when none runs (it holds its pidfile lock).
pid_t RunningDaemonPid();

// Exit codes of the service commands: 0 done, 1 failed; Status 3 when the
// daemon does not run.
int StartDaemon();
int StopDaemon();
int PrintStatus();

}  // namespace driftway
