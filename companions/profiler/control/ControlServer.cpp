#include "companions/profiler/control/ControlServer.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/control/ControlSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <string_view>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostClients = 16;
constexpr std::size_t kLongestCommand = 64;
constexpr std::chrono::seconds kLongestSilence{5};

/// Answers are a few hundred bytes, which the buffer of a fresh connection always takes.
void answer(int connection, const std::string& line) {
    const std::string text = line + '\n';
    (void)::send(connection, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

ControlServer::ControlServer(int directoryDescriptor)
    : directory(directoryDescriptor),
      listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    // The final name appears only when the socket listens, so whoever finds it can connect.
    const std::string newName = std::string(kControlSocketName) + ".new";
    const sockaddr_un address = controlAddress(directory, newName);
    (void)::unlinkat(directory, newName.c_str(), 0);  // usually there is none
    const bool listens =
        listener && ::fchmod(listener.get(), S_IRUSR | S_IWUSR) == 0 &&
        ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(listener.get(), static_cast<int>(kMostClients)) == 0 &&
        ::renameat(directory, newName.c_str(), directory, kControlSocketName) == 0;
    if (!listens) {
        throw Failure(ExitCode::NotWritten,
                      std::string("cannot create the control socket in the result directory: ") +
                          errorText(errno));
    }
}

ControlServer::~ControlServer() {
    (void)::unlinkat(directory, kControlSocketName, 0);  // the directory may have been removed
}

void ControlServer::addPollEntries(std::vector<pollfd>& entries) const {
    entries.push_back({listener.get(), POLLIN, 0});
    for (const Client& client : clients) {
        // One that waits for its answer has nothing to say; its hanging up is reported anyway, but
        // would be reported again and again, so it is not polled at all.
        entries.push_back({client.waits ? -1 : client.connection.get(), POLLIN, 0});
    }
}

void ControlServer::handle(const Handler& handler) {
    accept();
    clients.remove_if([&](Client& client) { return !client.waits && !serve(client, handler); });
}

void ControlServer::dropSilent() {
    const auto now = std::chrono::steady_clock::now();
    clients.remove_if([now](const Client& client) {
        return !client.waits && now - client.since > kLongestSilence;
    });
}

void ControlServer::answerAll(const std::string& line) {
    accept();
    for (const Client& client : clients) {
        answer(client.connection.get(), line);
    }
    clients.clear();
}

void ControlServer::accept() {
    // As many as there may be, so that a flood of connections leaves time for measuring.
    for (std::size_t attempt = 0; attempt < kMostClients; ++attempt) {
        FileDescriptor connection(
            ::accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!connection) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return;
        }
        if (clients.size() == kMostClients) {
            const auto oldest = std::find_if(clients.begin(), clients.end(),
                                             [](const Client& client) { return !client.waits; });
            // Whoever waits for the end was heard already, one more of them learns nothing new.
            clients.erase(oldest == clients.end() ? clients.begin() : oldest);
        }
        clients.push_back({std::move(connection), std::chrono::steady_clock::now(), "", false});
    }
}

/// @return false when the connection is to be closed
bool ControlServer::serve(Client& client, const Handler& handler) {
    std::array<char, 256> buffer{};
    const ssize_t count = ::recv(client.connection.get(), buffer.data(), buffer.size(), 0);
    if (count < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.text.append(buffer.data(), static_cast<std::size_t>(count));
    const std::size_t end = client.text.find('\n');
    if (end == std::string::npos) {
        return count > 0 && client.text.size() <= kLongestCommand;
    }
    const std::optional<std::string> reply = handler(client.text.substr(0, end));
    if (!reply) {
        client.waits = true;
        return true;
    }
    answer(client.connection.get(), *reply);
    return false;
}

}  // namespace kolvan::profiler
