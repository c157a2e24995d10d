#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace kolvan::server {

/// Makes and checks hashes of passwords with Argon2id.
///
/// Threads: any member from any thread. One password is worked on at a time, because each takes
/// memory (256 MiB) for a good part of a second: many who log in at once wait for each other and do
/// not take the memory of the server away.
class Passwords {
public:
    /// What one guess costs, whoever makes it. New hashes have it; old ones are renewed at the next
    /// login.
    struct Cost {
        unsigned long long operations;
        std::size_t memoryBytes;
    };

    /// The middle one of libsodium's three.
    static Cost moderate() noexcept;

    explicit Passwords(Cost ownCost = moderate());

    /// @return a hash that carries its salt and cost along
    /// @throws std::bad_alloc when there is no memory for it
    std::string hash(std::string_view password) const;

    /// Whether this is the password of which that hash was made.
    bool matches(std::string_view password, const std::string& hash) const;

    /// A hash of no password that anybody could find, at the cost of new ones. To compare with it
    /// where there is no user takes as long as where there is one, so that the time tells nothing.
    const std::string& hashOfNobody() const noexcept { return nobodysHash; }

    /// Whether a hash was made at another cost than new ones.
    bool needsRehash(const std::string& hash) const;

    /// Refuses what is no good password: shorter than 12 or longer than 1,024 bytes. Neither
    /// demands kinds of characters, which leads to worse ones.
    /// @throws std::invalid_argument with a sentence for whoever chose it
    static void check(std::string_view password);

private:
    const Cost cost;
    mutable std::mutex oneAtATime;  // guards nothing but the machine's memory
    const std::string nobodysHash;
};

}  // namespace kolvan::server
