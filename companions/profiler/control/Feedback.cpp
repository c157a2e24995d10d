#include "companions/profiler/control/Feedback.h"

#include "companions/profiler/output/TextEscape.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// A pipe that is ready takes PIPE_BUF bytes at once, so that writing no more than that does not
/// block although the descriptor, which may be shared, is left in blocking mode.
bool hasRoom(int descriptor, std::chrono::milliseconds patience) {
    pollfd entry{descriptor, POLLOUT, 0};
    int count = 0;
    do {
        count = ::poll(&entry, 1, static_cast<int>(patience.count()));
    } while (count < 0 && errno == EINTR);
    return count > 0 && (entry.revents & POLLOUT) != 0;
}

}  // namespace

Feedback::Feedback(std::optional<int> number) {
    if (!number || ::fcntl(*number, F_GETFD) < 0) {
        return;
    }
    descriptor = *number;
    if (descriptor > STDERR_FILENO) {
        owned = FileDescriptor(descriptor);
        // The command that we start must not keep the reader waiting for an end of file.
        (void)::fcntl(descriptor, F_SETFD, FD_CLOEXEC);  // cannot fail: it was open a line ago
    }
}

void Feedback::send(std::string_view element, const std::vector<Attribute>& attributes,
                    std::chrono::milliseconds patience) {
    std::string line = '<' + std::string(element);
    for (const auto& [name, value] : attributes) {
        line += ' ' + std::string(name) + "=\"" + xmlAttribute(value) + '"';
    }
    line += "/>\n";
    std::string_view rest = line;
    while (descriptor >= 0 && !rest.empty()) {
        if (!hasRoom(descriptor, patience)) {
            // Half an element would spoil all that follow.
            descriptor = rest.size() < line.size() ? -1 : descriptor;
            return;
        }
        const std::size_t length = std::min<std::size_t>(rest.size(), PIPE_BUF);
        const ssize_t count = ::write(descriptor, rest.data(), length);
        if (count < 0 && errno != EINTR) {
            descriptor = -1;
            return;
        }
        rest.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
}

}  // namespace kolvan::profiler
