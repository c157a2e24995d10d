#include "companions/server/accounts/Passwords.h"

#include "companions/server/base/Random.h"

#include <sodium.h>

#include <array>
#include <new>
#include <stdexcept>
#include <vector>

namespace kolvan::server {

namespace {

constexpr std::size_t kShortest = 12;
constexpr std::size_t kLongest = 1024;

Passwords::Cost started(Passwords::Cost cost) {
    // Chooses the machine's fastest code, and reports nothing but that it cannot be used at all.
    if (sodium_init() < 0) {
        throw std::runtime_error("libsodium cannot be used on this machine");
    }
    return cost;
}

std::string randomBase64(std::size_t size) {
    std::vector<std::byte> bytes(size);
    fillWithRandomBytes(bytes);
    constexpr int kVariant = sodium_base64_VARIANT_ORIGINAL_NO_PADDING;
    std::vector<char> text(sodium_base64_encoded_len(size, kVariant));
    sodium_bin2base64(text.data(), text.size(),
                      reinterpret_cast<const unsigned char*>(bytes.data()), size, kVariant);
    return text.data();
}

/// What looks like a hash, and is that of no password that anybody could find: made without the
/// work.
std::string hashOfNothing(const Passwords::Cost& cost) {
    return "$argon2id$v=19$m=" + std::to_string(cost.memoryBytes / 1024) +
           ",t=" + std::to_string(cost.operations) + ",p=1$" +
           randomBase64(crypto_pwhash_SALTBYTES) + "$" + randomBase64(32);
}

}  // namespace

Passwords::Cost Passwords::moderate() noexcept {
    return {crypto_pwhash_OPSLIMIT_MODERATE, crypto_pwhash_MEMLIMIT_MODERATE};
}

Passwords::Passwords(Cost ownCost) : cost(started(ownCost)), nobodysHash(hashOfNothing(cost)) {}

std::string Passwords::hash(std::string_view password) const {
    const std::lock_guard lock(oneAtATime);
    std::array<char, crypto_pwhash_STRBYTES> text{};
    if (crypto_pwhash_str_alg(text.data(), password.data(), password.size(), cost.operations,
                              cost.memoryBytes, crypto_pwhash_ALG_ARGON2ID13) != 0) {
        throw std::bad_alloc();  // its only failure
    }
    return text.data();
}

bool Passwords::matches(std::string_view password, const std::string& hash) const {
    const std::lock_guard lock(oneAtATime);
    return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

bool Passwords::needsRehash(const std::string& hash) const {
    return crypto_pwhash_str_needs_rehash(hash.c_str(), cost.operations, cost.memoryBytes) != 0;
}

void Passwords::check(std::string_view password) {
    if (password.size() < kShortest) {
        throw std::invalid_argument("A password has " + std::to_string(kShortest) +
                                    " characters or more");
    }
    if (password.size() > kLongest) {
        throw std::invalid_argument("A password has " + std::to_string(kLongest) +
                                    " bytes at most");
    }
}

}  // namespace kolvan::server
