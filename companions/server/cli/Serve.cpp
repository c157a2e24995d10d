#include "companions/server/cli/Serve.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/base/Clock.h"
#include "companions/server/base/DataDirectory.h"
#include "companions/server/cli/FirstLogin.h"
#include "companions/server/http/ListeningSocket.h"
#include "companions/server/http/TlsIdentity.h"
#include "companions/server/serve/Lifetime.h"
#include "companions/server/serve/LineLog.h"
#include "companions/server/serve/Service.h"
#include "companions/server/serve/ServiceManager.h"
#include "companions/server/serve/Signals.h"
#include "companions/server/serve/Successor.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include <array>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

using basekit2::UniqueFd;

/// Each agent has a connection. What the soft limit protects from, select(2), is not used here.
void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)::setrlimit(RLIMIT_NOFILE, &limit);  // up to the hard limit is always allowed
    }
}

/// Whoever has gone is noticed where something is written to them.
void ignoreBrokenPipes() {
    struct sigaction ignoring {};
    ignoring.sa_handler = SIG_IGN;
    if (::sigaction(SIGPIPE, &ignoring, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "sigaction");
    }
}

bool isOfTheNetwork(int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           address.ss_family != AF_UNIX;
}

std::vector<UniqueFd> openSockets(const Options& options) {
    std::vector<UniqueFd> sockets = http::inheritedSockets();
    if (sockets.empty()) {
        sockets.push_back(http::listenOn(options.address, options.port));
    }
    for (const UniqueFd& socket : sockets) {
        if (isOfTheNetwork(socket.get())) {
            checkEncryption(options, readListenAddress(http::localAddress(socket.get())));
        }
    }
    return sockets;
}

std::vector<UniqueFd> copiesOf(const std::vector<UniqueFd>& sockets) {
    std::vector<UniqueFd> copies;
    for (const UniqueFd& socket : sockets) {
        copies.emplace_back(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
        if (!copies.back()) {
            throw std::system_error(errno, std::generic_category(), "fcntl");
        }
    }
    return copies;
}

std::shared_ptr<http::TlsIdentity> identityOf(const Options& options) {
    return options.certificate.empty()
               ? nullptr
               : std::make_shared<http::TlsIdentity>(options.certificate, options.key);
}

/// What leads to the program that shall run after a restart: by the path with which this one was
/// started, there may lie a newer version by then.
StartedAs startedAs(int argc, const char* const* argv) {
    StartedAs started;
    started.arguments.assign(argv, argv + argc);
    const std::filesystem::path given = argc > 0 ? argv[0] : "";
    started.program = given.has_parent_path() ? std::filesystem::absolute(given)
                                              : std::filesystem::read_symlink("/proc/self/exe");
    started.atTerminal = ::isatty(STDIN_FILENO) == 1;
    return started;
}

/// The address for a browser or an agent on another machine.
std::string urlOf(const Options& options, int socket) {
    const std::string scheme = options.certificate.empty() ? "http://" : "https://";
    const std::string local = http::localAddress(socket);
    const std::string port = std::to_string(http::localPort(socket));
    if (local == "0.0.0.0:" + port || local == "[::]:" + port) {
        std::array<char, 256> name{};
        if (::gethostname(name.data(), name.size() - 1) == 0) {
            return scheme + name.data() + ':' + port;
        }
    }
    return scheme + local;
}

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char character : text) {
        result += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return result + '\'';
}

/// What somebody who has just started the server wants to know.
void greet(const Options& options, const DataDirectory& data, Service& service,
           const std::vector<UniqueFd>& sockets) {
    std::string text;
    for (const UniqueFd& socket : sockets) {
        text += isOfTheNetwork(socket.get())
                    ? "Serving on " + urlOf(options, socket.get()) + '\n'
                    : "Serving on " + http::localAddress(socket.get()) + '\n';
    }
    text += "Data are kept in " + data.path().string() + "\n";
    const std::string url =
        service.publicUrl().empty() ? urlOf(options, sockets.front().get()) : service.publicUrl();
    if (const std::string login = firstLoginText(service.logins(), url); !login.empty()) {
        const std::string program =
            "  kolvan-server" +
            (options.data.empty() ? "" : " --data " + quoted(data.path().string()));
        text += '\n' + login + "On this machine the same is done by\n" + program +
                " user add NAME --role administrator\n" + program + " token add NAME\n";
    }
    std::cout << text << std::flush;  // one that nobody reads is no reason not to serve
}

}  // namespace

void serve(const Options& options, int argc, const char* const* argv) {
    allowManyDescriptors();
    ignoreBrokenPipes();
    const StartedAs started = startedAs(argc, argv);
    const LineLog lines(STDERR_FILENO);
    const auto log = [&lines](std::string_view text) { lines.write(text); };
    const SystemClock clock;
    const bool isSuccessor = ::getenv(kReadyVariable) != nullptr;  // NOLINT(concurrency-mt-unsafe)

    const DataDirectory data(options.data.empty() ? DataDirectory::usualPlace() : options.data);
    std::vector<UniqueFd> sockets = openSockets(options);
    boost::asio::io_context context(1);  // one thread: nothing in it is locked
    Signals signals(context.get_executor(), {SIGTERM, SIGINT, SIGHUP});
    Service service(context.get_executor(), data, clock,
                    {identityOf(options), options.publicUrl, log});

    for (UniqueFd& copy : copiesOf(sockets)) {
        service.listen(std::move(copy));
    }
    if (!isSuccessor) {
        greet(options, data, service, sockets);
    }
    Lifetime lifetime(context.get_executor(), service, signals, std::move(sockets), started, log);
    service.startChores();
    std::exception_ptr failure;
    boost::asio::co_spawn(context, lifetime.run(), [&](const std::exception_ptr& thrown) {
        failure = thrown;
        if (thrown) {
            context.stop();
        }
    });
    tellReady();
    tellPredecessor();
    context.run();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace kolvan::server
