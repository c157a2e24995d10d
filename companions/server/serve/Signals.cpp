#include "companions/server/serve/Signals.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <cerrno>
#include <system_error>

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

constexpr int kFirstOfSignals = 128;  // how shells number the ends by signals

int openSignals(std::initializer_list<int> numbers) {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int number : numbers) {
        ::sigaddset(&set, number);
    }
    if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
    const int descriptor = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    return descriptor;
}

}  // namespace

Signals::Signals(const boost::asio::any_io_executor& executor, std::initializer_list<int> numbers)
    : descriptor(executor, openSignals(numbers)) {}

http::Awaitable<std::optional<int>> Signals::next() {
    while (!stopped) {
        signalfd_siginfo info{};
        if (::read(descriptor.native_handle(), &info, sizeof info) == sizeof info) {
            co_return static_cast<int>(info.ssi_signo);
        }
        boost::system::error_code ignored;  // the loop looks by itself
        co_await descriptor.async_wait(
            boost::asio::posix::stream_descriptor::wait_read,
            boost::asio::redirect_error(boost::asio::use_awaitable, ignored));
    }
    co_return std::nullopt;
}

void Signals::stop() {
    stopped = true;
    descriptor.cancel();
}

void dieOf(int signal) {
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signal);
    // Should one of these fail, the exit below is left.
    (void)::sigaction(signal, &usual, nullptr);
    (void)::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    (void)::raise(signal);
    ::_exit(kFirstOfSignals + signal);
}

}  // namespace kolvan::server
