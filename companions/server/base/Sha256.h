#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kolvan::server {

/// A SHA-256 digest.
struct Sha256 {
    std::array<std::byte, 32> bytes{};

    /// 64 hexadecimal digits in lower case.
    std::string hex() const;
    auto operator<=>(const Sha256&) const = default;  // NOLINT(modernize-use-nullptr): its own 0
};

/// Digest of a text as it stands in memory.
Sha256 sha256(std::string_view text);

/// Whether two digests are the same, in a time that does not depend on where they differ. To be
/// used wherever somebody could learn a secret from how long the answer takes.
bool equalInConstantTime(const Sha256& left, const Sha256& right) noexcept;

/// Computes the digest of something that comes in pieces.
/// Threads: one at a time.
class Sha256Sum {
public:
    Sha256Sum();
    ~Sha256Sum();

    Sha256Sum(const Sha256Sum&) = delete;
    Sha256Sum& operator=(const Sha256Sum&) = delete;

    void add(std::span<const std::byte> piece);

    /// The digest of all pieces. Nothing may be added after it.
    Sha256 finish();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace kolvan::server
