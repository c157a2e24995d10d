#include "companions/server/accounts/Secret.h"

#include "companions/server/base/Random.h"

#include <sodium.h>

#include <array>
#include <cstddef>

namespace kolvan::server {

Secret makeSecret(std::string_view prefix) {
    std::array<std::byte, 32> bits;
    fillWithRandomBytes(bits);
    constexpr int kForUrls = sodium_base64_VARIANT_URLSAFE_NO_PADDING;
    std::array<char, sodium_base64_ENCODED_LEN(sizeof bits, kForUrls)> letters{};
    sodium_bin2base64(letters.data(), letters.size(),
                      reinterpret_cast<const unsigned char*>(bits.data()), bits.size(), kForUrls);
    Secret secret;
    secret.text = std::string(prefix) + letters.data();
    secret.hash = sha256(secret.text);
    return secret;
}

}  // namespace kolvan::server
