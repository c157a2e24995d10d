// A collector of which very many run at once: small, linked statically, and with nothing between
// its beginning and the look at its limits. It takes these arguments:
//
//   crowd NUMBER [FIFO]    writes "soft <limit> hard <limit>", the limits of open descriptors that
//                          it was started with, and "begin <number>"; then, where a named pipe is
//                          given, waits until nobody holds that for writing; writes "end <number>"
//                          and ends with NUMBER % 100
//
// With other arguments it becomes the program "scripted" that lies beside it.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// A run that nobody ends must not outlive its test for long.
constexpr unsigned kLifeSeconds = 600;

constexpr int kUsageError = 164;

void writeAll(const char* text, size_t length) {
    while (length > 0) {
        const ssize_t count = ::write(STDOUT_FILENO, text, length);
        if (count < 0 && errno != EINTR) {
            ::_exit(kUsageError);
        }
        if (count > 0) {
            text += count;
            length -= static_cast<size_t>(count);
        }
    }
}

// Does not wait for a writer: the pipe may be let go of while it is being opened.
void waitForEndOf(const char* fifo) {
    const int end = ::open(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (end < 0) {
        ::_exit(kUsageError);
    }
    char byte = 0;
    while (::read(end, &byte, 1) != 0) {
        pollfd state{end, POLLIN, 0};
        (void)::poll(&state, 1, -1);
    }
}

[[noreturn]] void becomeScripted(char** arguments) {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - sizeof "scripted");
    if (length > 0) {
        path[length] = '\0';
        std::strcpy(std::strrchr(path, '/') + 1, "scripted");
        ::execv(path, arguments);
    }
    ::_exit(kUsageError);
}

}  // namespace

int main(int argc, char** arguments) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (argc < 3 || std::strcmp(arguments[1], "crowd") != 0) {
        becomeScripted(arguments);
    }
    ::alarm(kLifeSeconds);
    const int number = std::atoi(arguments[2]);
    char text[128];
    int length = std::snprintf(text, sizeof text, "soft %lu hard %lu\nbegin %d\n", limit.rlim_cur,
                               limit.rlim_max, number);
    writeAll(text, static_cast<size_t>(length));
    // The options of the feedback channel follow the arguments.
    if (argc > 3 && arguments[3][0] == '/') {
        waitForEndOf(arguments[3]);
    }
    length = std::snprintf(text, sizeof text, "end %d\n", number);
    writeAll(text, static_cast<size_t>(length));
    return number % 100;
}
