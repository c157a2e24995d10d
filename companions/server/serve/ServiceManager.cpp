#include "companions/server/serve/ServiceManager.h"

#include "basekit2/UniqueFd.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kolvan::server {

namespace {

void tell(const std::string& text) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    const char* const value = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = value == nullptr ? "" : value;
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';  // a name that is in no file system, unix(7)
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const basekit2::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket) {
        (void)::sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL,
                       reinterpret_cast<const sockaddr*>(&address), length);
    }
}

}  // namespace

void tellReady() {
    tell("READY=1\nMAINPID=" + std::to_string(::getpid()));
}

void tellReloading() {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);  // this clock is always there
    const long long microseconds = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
    tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds));
}

void tellReplacedBy(pid_t process) {
    // Said by the one that is known already: of a stranger nothing is believed.
    tell("READY=1\nMAINPID=" + std::to_string(process));
}

void tellStopping() {
    tell("STOPPING=1");
}

}  // namespace kolvan::server
