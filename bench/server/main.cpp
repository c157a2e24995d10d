// The server of the benchmarks: one thread that waits for many sockets. It looks at no more of a
// request than it must, and answers in the same step in which the request has become complete.
//
// usage: kolvan-bench-server PACKAGE-DIRECTORY [CERTIFICATE-AND-KEY.pem]
//
// Prints its two ports (plain, TLS), takes the commands of Script from standard input, and ends
// with it.

#include "bench/server/Connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::bench {

namespace {

using basekit2::UniqueFd;

void check(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

UniqueFd listenOnLoopback() {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(listener &&
              ::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0,
          "bind");
    check(::listen(listener.get(), 65535) == 0, "listen");
    return listener;
}

int portOf(const UniqueFd& listener) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    check(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "getsockname");
    return ntohs(address.sin_port);
}

TlsContext makeContext(const char* certificateAndKey) {
    TlsContext context(SSL_CTX_new(TLS_server_method()));
    if (context == nullptr ||
        SSL_CTX_use_certificate_chain_file(context.get(), certificateAndKey) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), certificateAndKey, SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("no certificate");
    }
    return context;
}

class Server {
public:
    Server(const char* packages, TlsContext context) : script(packages), tls(std::move(context)) {
        for (const int input : {STDIN_FILENO, plainListener.get(), tlsListener.get()}) {
            watch(EPOLL_CTL_ADD, input, EPOLLIN);
        }
        std::cout << portOf(plainListener) << ' ' << portOf(tlsListener) << std::endl;
    }

    void run() {
        std::array<epoll_event, 256> events{};
        while (!finished) {
            const int count = ::epoll_wait(readiness.get(), events.data(), 256, patience());
            for (int index = 0; index < count; ++index) {
                serve(events[static_cast<std::size_t>(index)].data.fd);
            }
            while (std::optional<Script::Due> due = script.takeDue()) {
                Connection& held = *connections.at(due->connection);
                keepOrClose(due->connection, held.answer(std::move(due->answer)));
            }
        }
    }

private:
    // In milliseconds, rounded up.
    int patience() const {
        const std::optional<std::int64_t> time = script.timeToNextDue();
        return time ? static_cast<int>((*time + 999'999) / 1'000'000) : -1;
    }

    void watch(int operation, int descriptor, std::uint32_t what) {
        epoll_event event{what, {.fd = descriptor}};
        check(::epoll_ctl(readiness.get(), operation, descriptor, &event) == 0, "epoll_ctl");
    }

    void serve(int ready) {
        if (ready == STDIN_FILENO) {
            readCommands();
        } else if (ready == plainListener.get()) {
            acceptAll(plainListener, nullptr);
        } else if (ready == tlsListener.get()) {
            acceptAll(tlsListener, tls.get());
        } else if (const auto found = connections.find(ready); found != connections.end()) {
            keepOrClose(ready, found->second->advance());
        }
    }

    void acceptAll(const UniqueFd& listener, SSL_CTX* context) {
        for (;;) {
            UniqueFd accepted(
                ::accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (!accepted) {
                return;
            }
            const int descriptor = accepted.get();
            const int on = 1;
            (void)::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            connections[descriptor] =
                std::make_unique<Connection>(Stream(std::move(accepted), context), script);
            watch(EPOLL_CTL_ADD, descriptor, EPOLLIN);
            keepOrClose(descriptor, connections[descriptor]->advance());
        }
    }

    void keepOrClose(int descriptor, bool alive) {
        if (!alive) {
            script.forget(descriptor);
            writing.erase(descriptor);
            connections.erase(descriptor);
            return;
        }
        const bool wantsToWrite = connections[descriptor]->wantsToWrite();
        if (wantsToWrite != writing[descriptor]) {
            writing[descriptor] = wantsToWrite;
            watch(EPOLL_CTL_MOD, descriptor, wantsToWrite ? EPOLLOUT : EPOLLIN);
        }
    }

    void readCommands() {
        std::array<char, 4096> text{};
        const ssize_t got = ::read(STDIN_FILENO, text.data(), text.size());
        finished = got <= 0;
        commands.append(text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        for (std::size_t end = commands.find('\n'); end != std::string::npos;
             end = commands.find('\n')) {
            script.command(commands.substr(0, end));
            commands.erase(0, end + 1);
        }
    }

    Script script;
    TlsContext tls;
    UniqueFd readiness{::epoll_create1(EPOLL_CLOEXEC)};
    UniqueFd plainListener = listenOnLoopback();
    UniqueFd tlsListener = listenOnLoopback();
    std::unordered_map<int, std::unique_ptr<Connection>> connections;
    std::unordered_map<int, bool> writing;
    std::string commands;
    bool finished = false;
};

// Thousands of uploads come at once.
void raiseDescriptorLimit() {
    rlimit limit{};
    check(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

}  // namespace

}  // namespace kolvan::bench

int main(int argc, char* argv[]) {
    try {
        kolvan::bench::raiseDescriptorLimit();
        kolvan::bench::Server(argc > 1 ? argv[1] : ".", argc > 2
                                                            ? kolvan::bench::makeContext(argv[2])
                                                            : kolvan::bench::TlsContext())
            .run();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kolvan-bench-server: " << error.what() << '\n';
        return 1;
    }
}
