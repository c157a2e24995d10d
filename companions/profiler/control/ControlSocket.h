#pragma once

#include <string>

#include <sys/un.h>

namespace kolvan::profiler {

/// Name of the control socket inside the result directory.
inline constexpr const char* kControlSocketName = "kolvan-trcap.socket";

/// Address of the entry `name` in the directory that is open as `directory`. It leads through
/// /proc/self/fd, because a socket address has room for about 100 bytes and a path may be longer.
sockaddr_un controlAddress(int directory, const std::string& name);

}  // namespace kolvan::profiler
