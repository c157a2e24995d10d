#pragma once

#include "basekit2/UniqueFd.h"

#include <string>
#include <vector>

namespace kolvan::server::http {

/// Opens a socket that listens.
/// @param host a numeric address, such as "127.0.0.1" or "::1"
/// @param port 0 for one that the system chooses
/// @throws std::runtime_error with address and reason
basekit2::UniqueFd listenOn(const std::string& host, unsigned port);

/// Takes over the listening sockets that the service manager has opened for this process, as
/// sd_listen_fds(3) describes it. To be called once; later calls, and children, find none.
/// @return empty when there are none for this process
/// @throws std::runtime_error when what was passed is no listening socket
std::vector<basekit2::UniqueFd> inheritedSockets();

/// Address and port of a socket's own end, "127.0.0.1:8080" or "[::1]:8080"; a path for one of the
/// Unix domain.
std::string localAddress(int descriptor);

/// Address of a socket's other end without the port; empty when it has none.
std::string peerAddress(int descriptor);

/// Port of a socket's own end; 0 when it has none.
unsigned localPort(int descriptor);

}  // namespace kolvan::server::http
