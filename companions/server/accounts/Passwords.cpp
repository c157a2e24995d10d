#include "companions/server/accounts/Passwords.h"

#include "companions/server/accounts/Secret.h"

#include <sodium.h>

#include <array>
#include <new>
#include <stdexcept>

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

}  // namespace

Passwords::Cost Passwords::moderate() noexcept {
    return {crypto_pwhash_OPSLIMIT_MODERATE, crypto_pwhash_MEMLIMIT_MODERATE};
}

Passwords::Passwords(Cost ownCost) : cost(started(ownCost)), nobodysHash(hash(makeSecret().text)) {}

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

void Passwords::pretendToMatch(std::string_view password) const {
    (void)matches(password, nobodysHash);  // nobody knows the text of that one
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
