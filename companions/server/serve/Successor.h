#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::server {

/// The environment variable that names the descriptor on which a successor says that it serves.
inline constexpr const char* kReadyVariable = "KOLVAN_READY_FD";

/// Starts a process that takes over listening sockets, and waits until it serves.
///
/// The sockets are its descriptors from 3 on, announced as sd_listen_fds(3) describes it.
/// Connections that nobody has accepted yet wait in the sockets and belong to whoever accepts
/// first, so that none is refused while one server takes over from another.
///
/// Blocks, for as long as the successor takes to start.
/// @param program path of the executable, which may be another one than the running one by now
/// @param arguments the first one is the program's name
/// @param listeningSockets one or more; they stay open here, too
/// @param signalled called with the number of the process as soon as it may be signalled, and with
///        0 before that could reach another one
/// @return the process that serves from now on
/// @throws std::runtime_error with the reason when it cannot be started, or ends before it serves;
///         everything is as before then
pid_t startSuccessor(
    const std::string& program, const std::vector<std::string>& arguments,
    const std::vector<int>& listeningSockets,
    const std::function<void(pid_t)>& signalled = [](pid_t) {});

/// Tells the predecessor, if there is one, that this process serves. To be called once, after the
/// first connection can be accepted.
void tellPredecessor();

}  // namespace kolvan::server
