#include "companions/server/base/Clock.h"

namespace kolvan::server {

UtcTime SystemClock::utc() const {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

std::chrono::steady_clock::time_point SystemClock::steady() const {
    return std::chrono::steady_clock::now();
}

}  // namespace kolvan::server
