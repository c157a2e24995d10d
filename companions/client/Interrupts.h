#pragma once

#include "basekit2/UniqueFd.h"

#include <chrono>

namespace kolvan::client {

/// Turns Ctrl-C (SIGINT), and SIGTERM, into something that can be waited for, until the process
/// ends.
class Interrupts {
public:
    /// @throws std::system_error
    Interrupts();

    /// Can be read as soon as one has come.
    int descriptor() const noexcept { return signals.get(); }

    /// Takes one that has come. @return false when there is none
    bool take();

    /// Waits for one. @return false when the time has passed without
    bool wait(std::chrono::milliseconds patience);

private:
    basekit2::UniqueFd signals;
};

}  // namespace kolvan::client
