#include "companions/server/http/Server.h"

#include "companions/server/http/Connection.h"
#include "companions/server/http/ListeningSocket.h"
#include "companions/server/http/OnPool.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cerrno>
#include <list>
#include <string>
#include <system_error>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kolvan::server::http {
namespace {

namespace asio = boost::asio;

using boost::system::error_code;
using Clock = std::chrono::steady_clock;

// Then those who are connected have a turn: a crowd that comes must not keep answers back.
constexpr std::size_t kAcceptedAtOnce = 32;
constexpr std::chrono::milliseconds kShortage{200};  // until the next attempt to accept
constexpr std::chrono::seconds kLookAtIdentity{5};

// Clients whose machine has vanished are noticed after about a minute and a half.
constexpr int kAliveIdleSeconds = 60;
constexpr int kAliveIntervalSeconds = 10;
constexpr int kAliveProbes = 3;

void setOption(int socket, int level, int name, int value) {
    // Not every kind of socket knows every option; without it the connection works too.
    (void)::setsockopt(socket, level, name, &value, sizeof value);
}

void prepareSocket(int socket) {
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kAliveIdleSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kAliveIntervalSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kAliveProbes);
}

// What accept4(2) reports of the connection, not of the server.
bool concernsOneConnection(int error) {
    switch (error) {
        case EINTR:
        case ECONNABORTED:
        case EPROTO:
        case EPERM:
        case ENETDOWN:
        case ENOPROTOOPT:
        case EHOSTDOWN:
        case ENONET:
        case EHOSTUNREACH:
        case EOPNOTSUPP:
        case ENETUNREACH:
            return true;
        default:
            return false;
    }
}

}  // namespace

class Server::Implementation : public std::enable_shared_from_this<Implementation> {
public:
    Implementation(const asio::any_io_executor& anyExecutor, asio::thread_pool& pool,
                   const Router& router, ServerSettings serverSettings)
        : executor(anyExecutor),
          threads(pool),
          settings(std::move(serverSettings)),
          surroundings{router, settings.limits, pool, settings.log, *settings.traffic},
          nextLook(executor) {}

    void listen(basekit2::UniqueFd socket) {
        auto listener = std::make_shared<Listener>(executor, std::move(socket));
        listeners.push_back(listener);
        asio::co_spawn(executor, accept(shared_from_this(), listener), asio::detached);
        if (settings.identity && listeners.size() == 1) {
            asio::co_spawn(executor, watchIdentity(shared_from_this()), asio::detached);
        }
    }

    Awaitable<std::size_t> stop(Clock::duration patience) {
        refuse();
        for (const auto& connection : served) {
            connection->finish();
        }
        deadline = Clock::now() + patience;
        while (!served.empty() && Clock::now() < deadline) {
            co_await waitForChange(deadline);
        }
        const std::size_t left = served.size();
        for (const auto& connection : served) {
            connection->abandon();
        }
        while (!served.empty()) {
            co_await waitForChange(Clock::time_point::max());
        }
        co_return left;
    }

    void hurry(Clock::duration patience) {
        deadline = std::min(deadline, Clock::now() + patience);
        tellChange();
    }

    std::size_t connections() const { return served.size(); }

    void refuse() {
        stopping = true;
        nextLook.cancel();
        for (const auto& listener : listeners) {
            listener->close();
        }
        listeners.clear();
        tellChange();
    }

private:
    struct Listener {
        Listener(const asio::any_io_executor& executor, basekit2::UniqueFd socket)
            : owned(std::move(socket)), waiting(executor, owned.get()) {
            waiting.native_non_blocking(true);
        }
        ~Listener() { close(); }

        void close() {
            if (owned) {
                waiting.cancel();
                (void)waiting.release();
                owned.reset();
            }
        }

        basekit2::UniqueFd owned;
        asio::posix::stream_descriptor waiting;
    };

    // Coroutines hold on to what they use by their parameters.
    static Awaitable<void> accept(std::shared_ptr<Implementation> self,
                                  std::shared_ptr<Listener> listener) {
        std::size_t accepted = 0;
        while (!self->stopping) {
            const Limits& limits = self->settings.limits;
            if (self->served.size() >= limits.connections + limits.refusals) {
                co_await self->waitForChange(Clock::time_point::max());
                continue;
            }
            basekit2::UniqueFd socket(
                ::accept4(listener->owned.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (socket) {
                self->shortageReported = false;
                self->serve(std::move(socket));
                if (++accepted % kAcceptedAtOnce == 0) {
                    co_await asio::post(self->executor, asio::use_awaitable);
                }
                continue;
            }
            const int error = errno;
            if (error == EAGAIN) {
                error_code ignored;  // the loop looks by itself
                co_await listener->waiting.async_wait(
                    asio::posix::stream_descriptor::wait_read,
                    asio::redirect_error(asio::use_awaitable, ignored));
            } else if (!concernsOneConnection(error)) {
                self->reportShortage(error);
                co_await self->waitForChange(Clock::now() + kShortage);
            }
        }
    }

    void reportShortage(int error) {
        if (!std::exchange(shortageReported, true)) {
            settings.log("Connections cannot be accepted for now: " +
                         std::generic_category().message(error));
        }
    }

    void serve(basekit2::UniqueFd socket) {
        prepareSocket(socket.get());
        std::string peer = peerAddress(socket.get());
        try {
            auto connected = std::make_unique<Socket>(executor, std::move(socket));
            std::unique_ptr<Stream> stream =
                settings.identity
                    ? makeTlsStream(std::move(connected), settings.identity->context().get())
                    : makePlainStream(std::move(connected));
            const bool busy = served.size() >= settings.limits.connections;
            const auto place = served.insert(
                served.end(), makeConnection(std::move(stream), std::move(peer),
                                             settings.identity != nullptr, busy, surroundings));
            ++settings.traffic->connections;
            asio::co_spawn(executor, run(shared_from_this(), place), asio::detached);
        } catch (const std::exception& failure) {
            settings.log(std::string("A connection could not be served: ") + failure.what());
        }
    }

    using Connections = std::list<std::unique_ptr<Connection>>;

    static Awaitable<void> run(std::shared_ptr<Implementation> self, Connections::iterator place) {
        try {
            co_await (*place)->run();
        } catch (const std::exception& failure) {
            self->settings.log(std::string("A connection has failed: ") + failure.what());
        }
        self->served.erase(place);
        --self->settings.traffic->connections;
        self->tellChange();
    }

    static Awaitable<void> watchIdentity(std::shared_ptr<Implementation> self) {
        while (!self->stopping) {
            error_code ignored;  // the loop looks by itself
            self->nextLook.expires_after(kLookAtIdentity);
            co_await self->nextLook.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
            if (self->stopping) {
                break;
            }
            const auto reload = [identity = self->settings.identity] {
                return identity->reloadIfChanged();
            };
            const std::string news = co_await onPool(self->threads, reload);
            if (!news.empty()) {
                self->settings.log(news);
            }
        }
    }

    // Until a connection has ended, the server stops or the time has come. Several may wait; each
    // looks again at what it has waited for.
    Awaitable<void> waitForChange(Clock::time_point deadline) {
        asio::steady_timer timer(executor, deadline);
        const auto place = waiters.insert(waiters.end(), &timer);
        error_code ignored;  // a cancellation is the change
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        waiters.erase(place);
    }

    void tellChange() {
        for (asio::steady_timer* timer : waiters) {
            timer->cancel();
        }
    }

    const asio::any_io_executor executor;
    asio::thread_pool& threads;
    const ServerSettings settings;
    const ConnectionSurroundings surroundings;
    asio::steady_timer nextLook;  // at the certificate
    std::vector<std::shared_ptr<Listener>> listeners;
    std::list<asio::steady_timer*> waiters;  // in the coroutines that wait for a change
    Connections served;
    Clock::time_point deadline = Clock::time_point::max();  // of `stop`, while it waits
    bool stopping = false;
    bool shortageReported = false;
};

Server::Server(const asio::any_io_executor& executor, asio::thread_pool& threads,
               const Router& router, ServerSettings settings)
    : implementation(
          std::make_shared<Implementation>(executor, threads, router, std::move(settings))) {}

Server::~Server() {
    implementation->refuse();
}

void Server::listen(basekit2::UniqueFd socket) {
    implementation->listen(std::move(socket));
}

Awaitable<std::size_t> Server::stop(std::chrono::steady_clock::duration patience) {
    return implementation->stop(patience);
}

void Server::hurry(std::chrono::steady_clock::duration patience) {
    implementation->hurry(patience);
}

std::size_t Server::connections() const {
    return implementation->connections();
}

}  // namespace kolvan::server::http
