#pragma once

namespace cagnt1 {

/// Puts the process into the state that the agent relies on, whatever it was started with. To be
/// called before anything is opened and before any thread is started, because threads inherit it.
///
/// - Descriptors 0, 1 and 2 are open, on the null device where they were not: otherwise a socket
///   or an archive would take their number and log lines would be written into it.
/// - SIGINT is blocked, to be let in by one thread only; SIGPIPE is blocked, because connections
///   break; everything else is let in.
/// - SIGCHLD has its default action: otherwise the exit codes of children would be lost.
/// - The limit of open descriptors is as high as it may be: every upload takes some.
/// - Memory of large texts goes back to the system when it is freed.
void prepareProcess();

}  // namespace cagnt1
