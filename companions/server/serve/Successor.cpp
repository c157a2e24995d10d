#include "companions/server/serve/Successor.h"

#include "basekit2/UniqueFd.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

using basekit2::UniqueFd;

constexpr int kFirstSocket = 3;  // where sd_listen_fds(3) has it
constexpr char kReady = '1';
constexpr std::string_view kListenPid = "LISTEN_PID=";
constexpr int kNotExecuted = 127;

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// A descriptor of the same file that is out of the way of those the successor gets.
UniqueFd duplicateAbove(int last, int descriptor) {
    UniqueFd copy(::fcntl(descriptor, F_DUPFD_CLOEXEC, last + 1));
    if (!copy) {
        throw std::system_error(errno, std::generic_category(), "fcntl");
    }
    return copy;
}

/// The environment for the successor. Its process number is left blank: only the child knows it.
std::vector<std::string> successorEnvironment(int sockets) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text(*variable);
        if (text.substr(0, 7) != "LISTEN_" && text.substr(0, text.find('=')) != kReadyVariable) {
            variables.emplace_back(text);
        }
    }
    variables.emplace_back("LISTEN_FDS=" + std::to_string(sockets));
    variables.emplace_back(std::string(kReadyVariable) + '=' +
                           std::to_string(kFirstSocket + sockets));
    variables.emplace_back(std::string(kListenPid) + std::string(20, '\0'));
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// What the child does. Other threads may have held any lock when it came to be: nothing here but
/// calls that are safe in a signal handler, signal-safety(7), and writing into memory that was
/// there before.
[[noreturn]] void becomeSuccessor(const char* program, char* const* arguments,
                                  char* const* environment, std::string& listenPid,
                                  const std::vector<UniqueFd>& handedOn) {
    char* const number = listenPid.data() + kListenPid.size();
    std::to_chars(number, listenPid.data() + listenPid.size(), ::getpid());
    ::sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    int place = kFirstSocket;
    for (const UniqueFd& descriptor : handedOn) {
        if (::dup2(descriptor.get(), place) != place) {
            break;
        }
        ++place;
    }
    if (place == kFirstSocket + static_cast<int>(handedOn.size())) {
        ::execve(program, arguments, environment);
    }
    const int error = errno;
    // The reason goes the way on which readiness would have come: it is longer.
    (void)!::write(handedOn.back().get(), &error, sizeof error);
    ::_exit(kNotExecuted);
}

std::size_t readToEnd(int descriptor, char* bytes, std::size_t size) {
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count = ::read(descriptor, bytes + filled, size - filled);
        if (count == 0 || (count < 0 && errno != EINTR)) {
            break;
        }
        filled += count > 0 ? static_cast<std::size_t>(count) : 0U;
        if (filled == 1 && bytes[0] == kReady) {
            break;  // a successor that serves may keep its end open
        }
    }
    return filled;
}

}  // namespace

pid_t startSuccessor(const std::string& program, const std::vector<std::string>& arguments,
                     const std::vector<int>& listeningSockets,
                     const std::function<void(pid_t)>& signalled) {
    const auto count = static_cast<int>(listeningSockets.size());
    const int last = kFirstSocket + count;
    std::vector<std::string> ownArguments = arguments;
    std::vector<std::string> variables = successorEnvironment(count);
    const std::vector<char*> argumentPointers = pointersTo(ownArguments);
    const std::vector<char*> variablePointers = pointersTo(variables);
    std::vector<UniqueFd> handedOn;  // the sockets, then the pipe's end
    for (const int socket : listeningSockets) {
        handedOn.push_back(duplicateAbove(last, socket));
    }
    Pipe pipe = makePipe();
    handedOn.push_back(duplicateAbove(last, pipe.writeEnd.get()));
    pipe.writeEnd.reset();

    const pid_t child = ::_Fork();
    if (child == 0) {
        becomeSuccessor(program.c_str(), argumentPointers.data(), variablePointers.data(),
                        variables.back(), handedOn);
    }
    const int forkError = errno;
    handedOn.clear();
    if (child < 0) {
        throw std::system_error(forkError, std::generic_category(), "fork");
    }
    signalled(child);

    std::array<char, sizeof(int)> answer{};
    const std::size_t length = readToEnd(pipe.readEnd.get(), answer.data(), answer.size());
    if (length == 1 && answer[0] == kReady) {
        return child;
    }
    signalled(0);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (length == answer.size()) {
        int error = 0;
        std::memcpy(&error, answer.data(), answer.size());
        throw std::system_error(error, std::generic_category(), program);
    }
    throw std::runtime_error("The successor has ended before it served, " +
                             (WIFSIGNALED(status)
                                  ? "by signal " + std::to_string(WTERMSIG(status))
                                  : "with exit status " + std::to_string(WEXITSTATUS(status))));
}

void tellPredecessor() {
    const char* const name = std::getenv(kReadyVariable);  // NOLINT(concurrency-mt-unsafe)
    if (name == nullptr) {
        return;
    }
    int number = -1;
    std::from_chars(name, name + std::strlen(name), number);
    const UniqueFd ready(number);
    // A predecessor that has ended has nobody to be told; its pipe's signal is ignored by servers.
    (void)!::write(ready.get(), &kReady, 1);
}

}  // namespace kolvan::server
