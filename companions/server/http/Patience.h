#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace kolvan::server::http {

/// How long the other side of a connection may keep us waiting while a body goes over it: a minimum
/// rate that short pauses do not break.
///
/// Time spent waiting uses the patience up, bytes that come restore it, never beyond what it was at
/// first. So a body of any size may take its time, and one byte now and then does not hold a
/// connection for ever.
class Patience {
public:
    using Duration = std::chrono::steady_clock::duration;

    /// @param pause longest pause that a silent connection is forgiven
    /// @param bytesPerSecond rate at which waiting is paid for
    Patience(Duration pause, std::size_t bytesPerSecond)
        : most(pause),
          perByte(std::max(Duration(1), Duration(std::chrono::seconds(1)) /
                                            static_cast<Duration::rep>(bytesPerSecond))),
          rest(pause) {}

    /// How long the next wait may take.
    Duration left() const { return rest; }

    /// Takes note that `bytes` went over the connection after `waited`.
    void spend(Duration waited, std::size_t bytes) {
        rest -= waited < rest ? waited : rest;
        // Compared before it is multiplied: the product of a large piece would overflow.
        const auto full = static_cast<std::size_t>((most - rest) / perByte);
        rest = bytes >= full ? most : rest + perByte * static_cast<Duration::rep>(bytes);
    }

private:
    const Duration most;
    const Duration perByte;
    Duration rest;
};

}  // namespace kolvan::server::http
