#include "companions/profiler/control/ControlClient.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/control/ControlSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>

namespace kolvan::profiler {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kSearchTime{2};
constexpr std::chrono::seconds kAnswerTime{30};
constexpr std::chrono::milliseconds kLongestPause{100};
constexpr std::size_t kLongestAnswer = 4096;

/// Wakes up when a control socket appears in a directory. Where the system cannot watch, only the
/// time limit of `wait` wakes the caller, who looks again anyway.
class SocketWatch {
public:
    explicit SocketWatch(int directory) : events(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        const std::string path = "/proc/self/fd/" + std::to_string(directory);
        if (!events || ::inotify_add_watch(events.get(), path.c_str(), IN_MOVED_TO) < 0) {
            events = FileDescriptor();
        }
    }

    void wait(std::chrono::milliseconds time) const {
        pollfd entry{events.get(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(time.count())) > 0) {
            std::array<char, 4096> discarded{};
            (void)::read(events.get(), discarded.data(), discarded.size());  // the caller looks
        }
    }

private:
    FileDescriptor events;
};

FileDescriptor tryConnect(int directory) {
    FileDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = controlAddress(directory, kControlSocketName);
    if (connection && ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address),
                                sizeof address) != 0) {
        const int error = errno;
        connection = FileDescriptor();
        errno = error;
    }
    return connection;
}

std::optional<std::string> receiveLine(int connection) {
    const auto deadline = Clock::now() + kAnswerTime;
    std::string text;
    while (text.size() < kLongestAnswer) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{connection, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::max<long>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready == 0) {
            throw Failure(ExitCode::Failed, "the collection does not answer");
        }
        std::array<char, 512> buffer{};
        const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (const std::size_t end = text.find('\n'); end != std::string::npos) {
            return text.substr(0, end);
        }
    }
    return std::nullopt;
}

std::optional<std::string> ask(int connection, const std::string& command) {
    const std::string line = command + '\n';
    // When the other side hung up, its last words are still to be read.
    (void)::send(connection, line.data(), line.size(), MSG_NOSIGNAL);
    return receiveLine(connection);
}

std::string understand(const std::string& answer) {
    if (answer.starts_with("ok ")) {
        return answer.substr(3);
    }
    throw Failure(ExitCode::Failed, "the collection refused: " + answer);
}

}  // namespace

std::string sendControlCommand(const std::string& resultDirectory, const std::string& command) {
    const std::string place = "no collection is running in '" + resultDirectory + "'";
    const FileDescriptor directory(
        ::open(resultDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        throw Failure(ExitCode::NoCollection, place + ": " + errorText(errno));
    }
    const SocketWatch watch(directory.get());
    const auto deadline = Clock::now() + kSearchTime;
    for (;;) {
        if (const FileDescriptor connection = tryConnect(directory.get())) {
            if (const auto answer = ask(connection.get(), command)) {
                return understand(*answer);
            }
        } else if (errno != ENOENT && errno != ECONNREFUSED && errno != EAGAIN) {
            throw Failure(ExitCode::Failed, "cannot reach the collection in '" + resultDirectory +
                                                "': " + errorText(errno));
        }
        if (Clock::now() >= deadline) {
            throw Failure(ExitCode::NoCollection, place);
        }
        watch.wait(kLongestPause);
    }
}

}  // namespace kolvan::profiler
