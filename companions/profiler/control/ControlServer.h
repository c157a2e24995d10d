#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace kolvan::profiler {

/// The collecting side of the control channel: a socket in the result directory on which commands
/// arrive, one line per connection, and are answered with one line.
///
/// Nothing here blocks. Connections that send too much, nothing at all or more than a few at once
/// are closed, so that no client can hold up the measurement. Used from one thread.
class ControlServer {
public:
    /// Answers a command with one line without line feed; nothing means that the answer comes at
    /// the end of the collection, through `answerAll`.
    using Handler = std::function<std::optional<std::string>(const std::string& command)>;

    /// Listens in the directory that is open as `directory`, which outlives this object. A socket
    /// that was left behind there is replaced, so the caller makes sure that nobody else uses it.
    /// @throws Failure with `ExitCode::Failed`
    explicit ControlServer(int directory);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

    /// Appends what is to be polled for before `handle` is called.
    void addPollEntries(std::vector<pollfd>& entries) const;

    /// Accepts, reads and answers what is there; a bounded part of it when it is a flood.
    void handle(const Handler& handler);

    /// Closes connections that have been silent for long. To be called now and then.
    void dropSilent();

    /// Sends `line` to everybody who is connected, and hangs up.
    void answerAll(const std::string& line);

private:
    struct Client {
        FileDescriptor connection;
        std::chrono::steady_clock::time_point since;
        std::string text;
        bool waits = false;  // its command is known; the answer comes at the end
    };

    void accept();
    bool serve(Client& client, const Handler& handler);

    const int directory;
    FileDescriptor listener;
    std::list<Client> clients;
};

}  // namespace kolvan::profiler
