#include "companions/server/cli/PasswordInput.h"

#include "basekit2/UniqueFd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

constexpr std::size_t kLongestLine = 4096;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Holds signals back that would end or stop the program, and tells when there is one.
class HeldSignals {
public:
    HeldSignals() {
        sigset_t held;
        sigemptyset(&held);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
            sigaddset(&held, number);
        }
        pending.reset(::signalfd(-1, &held, SFD_CLOEXEC));
        if (!pending) {
            fail("signalfd");
        }
        if (const int error = ::pthread_sigmask(SIG_BLOCK, &held, &before); error != 0) {
            throw std::system_error(error, std::generic_category(), "pthread_sigmask");
        }
    }
    ~HeldSignals() {
        // A signal that is pending does its work now. Setting back what was there cannot fail.
        (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// Waits until there is something to read. @return false when there is a signal
    bool waitFor(int descriptor) const {
        std::array<pollfd, 2> watched = {pollfd{descriptor, POLLIN, 0},
                                         pollfd{pending.get(), POLLIN, 0}};
        while (::poll(watched.data(), watched.size(), -1) < 0) {
            if (errno != EINTR) {
                fail("poll");
            }
        }
        return watched[1].revents == 0;
    }

private:
    basekit2::UniqueFd pending;
    sigset_t before{};
};

/// Keeps a terminal from showing what is typed.
class WithoutEcho {
public:
    explicit WithoutEcho(int terminal) : descriptor(terminal) {
        if (::tcgetattr(descriptor, &before) != 0) {
            fail("tcgetattr");
        }
        termios quiet = before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        if (::tcsetattr(descriptor, TCSAFLUSH, &quiet) != 0) {
            fail("tcsetattr");
        }
    }
    ~WithoutEcho() {
        // A terminal that has gone needs nothing.
        (void)::tcsetattr(descriptor, TCSAFLUSH, &before);
    }

    WithoutEcho(const WithoutEcho&) = delete;
    WithoutEcho& operator=(const WithoutEcho&) = delete;

private:
    const int descriptor;
    termios before{};
};

/// Reads up to a line feed, which is left out, or to the end. `mayRead` is asked before each byte.
template <typename MayRead>
std::string readLine(int descriptor, MayRead mayRead) {
    std::string line;
    // Byte by byte, so that nothing is taken that belongs to somebody else.
    for (char character = 0; line.size() <= kLongestLine;) {
        if (!mayRead()) {
            throw std::runtime_error("Interrupted");
        }
        const ssize_t count = ::read(descriptor, &character, 1);
        if (count < 0 && errno != EINTR) {
            fail("Failed to read the password");
        }
        if (count == 0 || (count == 1 && character == '\n')) {
            return line;
        }
        if (count == 1) {
            line += character;
        }
    }
    throw std::runtime_error("The line with the password does not end");
}

void say(int terminal, const std::string& text) {
    if (::write(terminal, text.data(), text.size()) < 0) {
        fail("Failed to ask for the password");
    }
}

std::string askTwice(const std::string& who) {
    const basekit2::UniqueFd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!terminal) {
        fail("/dev/tty");
    }
    // In this order: signals come through once the terminal is as it was.
    const HeldSignals signals;
    const WithoutEcho quiet(terminal.get());
    const auto ask = [&](const std::string& question) {
        say(terminal.get(), question);
        return readLine(terminal.get(), [&] { return signals.waitFor(terminal.get()); });
    };
    std::string first = ask("Password for " + who + ": ");
    if (first != ask("Once more: ")) {
        throw std::runtime_error("The two passwords differ");
    }
    return first;
}

}  // namespace

std::string readNewPassword(const std::string& who, bool fromInput) {
    if (!fromInput && ::isatty(STDIN_FILENO) == 1) {
        return askTwice(who);
    }
    return readLine(STDIN_FILENO, [] { return true; });
}

}  // namespace kolvan::server
