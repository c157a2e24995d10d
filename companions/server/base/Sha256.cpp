#include "companions/server/base/Sha256.h"

#include "companions/server/base/Hex.h"

#include <sodium.h>

namespace kolvan::server {

namespace {

// libsodium counts in unsigned char. Its functions here report nothing: they cannot fail.
const unsigned char* raw(const std::byte* bytes) {
    return reinterpret_cast<const unsigned char*>(bytes);
}

unsigned char* raw(std::byte* bytes) {
    return reinterpret_cast<unsigned char*>(bytes);
}

}  // namespace

std::string Sha256::hex() const {
    return toHex(bytes);
}

Sha256 sha256(std::string_view text) {
    Sha256Sum sum;
    sum.add(std::as_bytes(std::span(text)));
    return sum.finish();
}

bool equalInConstantTime(const Sha256& left, const Sha256& right) noexcept {
    return sodium_memcmp(left.bytes.data(), right.bytes.data(), left.bytes.size()) == 0;
}

struct Sha256Sum::State {
    crypto_hash_sha256_state hash;
};

Sha256Sum::Sha256Sum() : state(std::make_unique<State>()) {
    (void)crypto_hash_sha256_init(&state->hash);
}

Sha256Sum::~Sha256Sum() = default;

void Sha256Sum::add(std::span<const std::byte> piece) {
    (void)crypto_hash_sha256_update(&state->hash, raw(piece.data()), piece.size());
}

Sha256 Sha256Sum::finish() {
    Sha256 digest;
    (void)crypto_hash_sha256_final(&state->hash, raw(digest.bytes.data()));
    return digest;
}

}  // namespace kolvan::server
