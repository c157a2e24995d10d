#include "companions/server/base/Uuid.h"

#include "companions/server/base/Hex.h"
#include "companions/server/base/Random.h"

#include <array>
#include <cstddef>

namespace kolvan::server {

std::string newUuid() {
    std::array<std::byte, 16> bytes;
    fillWithRandomBytes(bytes);
    bytes[6] = (bytes[6] & std::byte{0x0F}) | std::byte{0x40};  // version 4: random
    bytes[8] = (bytes[8] & std::byte{0x3F}) | std::byte{0x80};  // the variant of RFC 4122
    std::string text = toHex(bytes);
    for (const std::size_t dash : {8U, 13U, 18U, 23U}) {
        text.insert(dash, 1, '-');
    }
    return text;
}

}  // namespace kolvan::server
