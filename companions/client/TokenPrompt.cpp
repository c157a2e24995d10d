#include "companions/client/TokenPrompt.h"

#include "companions/client/Failure.h"

#include <iostream>

#include <signal.h>
#include <termios.h>
#include <unistd.h>

namespace kolvan::client {

namespace {

/// Keeps a terminal from showing what is typed, and Ctrl-C and Ctrl-Z from ending us meanwhile,
/// which would leave it like that.
class Silence {
public:
    Silence() {
        sigset_t keys;
        ::sigemptyset(&keys);
        for (const int number : {SIGINT, SIGQUIT, SIGTSTP}) {
            ::sigaddset(&keys, number);
        }
        if (::tcgetattr(STDIN_FILENO, &before) != 0) {
            return;
        }
        (void)::pthread_sigmask(SIG_BLOCK, &keys, &mask);  // fails for wrong arguments only
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        isSilent = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
        if (!isSilent) {
            (void)::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        }
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence() {
        if (isSilent) {
            (void)::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);  // has worked the other way
            (void)::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        }
    }

    explicit operator bool() const noexcept { return isSilent; }

private:
    termios before{};
    sigset_t mask{};
    bool isSilent = false;
};

}  // namespace

std::string askSecretly(const std::string& question) {
    std::string line;
    bool read = false;
    if (::isatty(STDIN_FILENO) != 0) {
        const Silence silence;
        if (!silence) {
            throw Failure("The terminal cannot be kept from showing what is typed.");
        }
        std::cerr << question << std::flush;
        read = static_cast<bool>(std::getline(std::cin, line));
        std::cerr << "\n";
    } else {
        read = static_cast<bool>(std::getline(std::cin, line));
    }
    if (!read || line.empty()) {
        throw Failure("No token was given.");
    }
    return line;
}

}  // namespace kolvan::client
