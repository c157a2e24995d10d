#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace kolvan::check {

/// The system's numbers of sockets of any kind.
using Sockets = std::set<std::string>;

/// The other ends of the TCP connections in a table (the text of /proc/PID/net/tcp or tcp6) that
/// are established or being made and that belong to one of the sockets.
std::vector<std::string> connectionsIn(std::string_view table, const Sockets& sockets);

/// A process that is looked at again and again through /proc.
class WatchedProcess {
public:
    /// @throws std::runtime_error when there is no such process, and std::system_error when this
    ///         user may not look at it; so do the other members
    explicit WatchedProcess(pid_t number);

    /// The sockets that it has open.
    Sockets sockets() const;

    /// The other ends of its TCP connections, as `connectionsIn`. Takes a second where the system
    /// has tens of thousands of connections, those that have just ended among them.
    std::vector<std::string> connections(const Sockets& sockets) const;

    std::vector<pid_t> children() const;

    /// The path by which the process was started.
    std::string programPath() const;

private:
    void checkThatItLives() const;
    std::string startTime() const;
    std::vector<std::filesystem::path> entries(const char* name) const;
    [[noreturn]] void fail(const std::error_code& reason, const char* what) const;

    const pid_t process;
    const std::filesystem::path directory;
    const std::string started;  // tells the process from a later one with the same number
};

}  // namespace kolvan::check
