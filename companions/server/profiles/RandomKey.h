#pragma once

#include <cerrno>
#include <system_error>

#include <unistd.h>

namespace kolvan::server::profiles {

/// A key for a hash that nobody can foresee: who could, would make a file whose entries all
/// collide.
/// @param Key up to 256 bytes, for which any value is right
/// @throws std::system_error when the kernel has no random bytes
template <typename Key>
Key randomKey() {
    Key key{};
    if (::getentropy(&key, sizeof(key)) != 0) {
        throw std::system_error(errno, std::generic_category(), "getentropy");
    }
    return key;
}

}  // namespace kolvan::server::profiles
