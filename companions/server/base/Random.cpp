#include "companions/server/base/Random.h"

#include <cerrno>
#include <system_error>

#include <sys/random.h>

namespace kolvan::server {

void fillWithRandomBytes(std::span<std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::getrandom(bytes.data(), bytes.size(), 0);
        if (count < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
    }
}

}  // namespace kolvan::server
