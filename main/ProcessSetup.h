#pragma once

namespace cagnt1 {

/// Puts the process into the state that the agent relies on, whatever state it was started in. Must
/// be called before anything is opened and before any thread is started, because threads inherit
/// it.
///
/// - Descriptors 0, 1 and 2 are open, on the null device where they were not: otherwise a socket
///   or an archive would take their number and log lines would be written into it.
/// - SIGINT is blocked, because only one thread lets it in (see InterruptThread.h). SIGPIPE is
///   blocked, because a broken connection must not end the process. No other signal is blocked.
/// - SIGCHLD has its default action: otherwise the exit codes of children would be lost.
/// - The limit of open descriptors is as high as it may be: every upload takes some.
/// - The kernel's table of descriptors has room for a crowd of them.
/// - Memory of large texts goes back to the system when it is freed.
/// - Threads get stacks of 1 MB, or smaller ones where the limit of stacks says so.
void prepareProcess();

}  // namespace cagnt1
