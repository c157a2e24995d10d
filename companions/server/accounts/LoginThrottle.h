#pragma once

#include "companions/server/base/Clock.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace kolvan::server {

/// Slows guessing of passwords down, for each address (of IPv6: each network of 64 bits, which is
/// what one client has) and for each user.
///
/// Some attempts are free; after them each failed one doubles the time until the next is let
/// through. For an address that grows to fifteen minutes. For a user it ends at thirty seconds:
/// somebody else's guesses must not keep the user out. An attempt counts as failed from its
/// beginning on, so that many at once are no way around. What has been quiet for an hour is
/// forgotten.
///
/// Threads: any member from any thread.
class LoginThrottle {
public:
    /// @param ownClock must live as long as this
    explicit LoginThrottle(const Clock& ownClock) : clock(ownClock) {}

    /// Lets an attempt through, and counts it, or not.
    /// @return nothing when it may go on, otherwise how long to wait
    std::optional<std::chrono::seconds> admit(const std::string& user, const std::string& address);

    /// Forgets the failures of a user and an address, because the password was right.
    void succeeded(const std::string& user, const std::string& address);

private:
    using Time = std::chrono::steady_clock::time_point;

    struct Attempts {
        unsigned count = 0;
        Time last;
        Time next;  // no attempt is let through before
    };
    struct Limit {
        unsigned freeAttempts;
        std::chrono::seconds longestWait;
    };

    static constexpr Limit kForUser{5, std::chrono::seconds(30)};
    static constexpr Limit kForAddress{10, std::chrono::minutes(15)};

    static void count(Attempts& attempts, const Limit& limit, Time now);
    Time nextFor(const std::string& key) const;
    void makeRoom(Time now);

    const Clock& clock;

    std::mutex mutex;  // guards attempts
    std::unordered_map<std::string, Attempts> attempts;
};

}  // namespace kolvan::server
