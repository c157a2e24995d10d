#include "companions/client/Interrupts.h"

#include <cerrno>
#include <system_error>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kolvan::client {

Interrupts::Interrupts() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    (void)::pthread_sigmask(SIG_BLOCK, &set, nullptr);  // fails for wrong arguments only
    signals.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

bool Interrupts::take() {
    signalfd_siginfo information{};
    return ::read(signals.get(), &information, sizeof(information)) ==
           static_cast<ssize_t>(sizeof(information));
}

bool Interrupts::wait(std::chrono::milliseconds patience) {
    pollfd entry{signals.get(), POLLIN, 0};
    // An error counts as a wait that has ended: what there is to take is taken.
    (void)::poll(&entry, 1, static_cast<int>(patience.count()));
    return take();
}

}  // namespace kolvan::client
