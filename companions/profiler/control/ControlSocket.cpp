#include "companions/profiler/control/ControlSocket.h"

#include <cstring>

#include <sys/socket.h>

namespace kolvan::profiler {

sockaddr_un controlAddress(int directory, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
    // Both parts are short whatever the directory is called; the last byte stays 0.
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

}  // namespace kolvan::profiler
