#include "companions/server/base/UtcTime.h"

#include <array>
#include <cstdio>

namespace kolvan::server {

std::string toRfc3339(UtcTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    std::array<char, 64> text{};
    const int length =
        std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                      int(date.year()), unsigned(date.month()), unsigned(date.day()),
                      int(clock.hours().count()), int(clock.minutes().count()),
                      int(clock.seconds().count()), int(clock.subseconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace kolvan::server
