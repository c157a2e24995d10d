#include "companions/server/base/UtcTime.h"

#include <array>
#include <cstddef>
#include <cstdio>

namespace kolvan::server {

namespace {

/// Takes what it reads off the beginning of a text. Once something is missing, all fails.
class Reader {
public:
    explicit Reader(std::string_view text) : rest(text) {}

    bool ended() const { return good && rest.empty(); }

    bool take(std::string_view oneOf) {
        const bool found = !rest.empty() && oneOf.find(rest.front()) != std::string_view::npos;
        rest.remove_prefix(found ? 1 : 0);
        return found;
    }

    void require(std::string_view oneOf) { good = take(oneOf) && good; }

    int number(std::size_t digits, int most) {
        int value = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            value = 10 * value + digit();
        }
        good = good && value <= most;
        return value;
    }

    /// The digits behind a point, as thousandths.
    int thousandths() {
        int value = 0;
        int weight = 100;
        do {
            value += weight * digit();
            weight /= 10;
        } while (good && !rest.empty() && rest.front() >= '0' && rest.front() <= '9');
        return value;
    }

private:
    int digit() {
        good = good && !rest.empty() && rest.front() >= '0' && rest.front() <= '9';
        const int value = good ? rest.front() - '0' : 0;
        rest.remove_prefix(good ? 1 : 0);
        return value;
    }

    std::string_view rest;
    bool good = true;
};

}  // namespace

std::optional<UtcTime> fromRfc3339(std::string_view text) {
    using namespace std::chrono;
    Reader reader(text);
    const year years(reader.number(4, 9999));
    reader.require("-");
    const month months(static_cast<unsigned>(reader.number(2, 12)));
    reader.require("-");
    const day days(static_cast<unsigned>(reader.number(2, 31)));
    reader.require("Tt ");
    milliseconds clock = hours(reader.number(2, 23));
    reader.require(":");
    clock += minutes(reader.number(2, 59));
    reader.require(":");
    clock += seconds(reader.number(2, 60));  // leap seconds exist, and count as the next one
    if (reader.take(".")) {
        clock += milliseconds(reader.thousandths());
    }
    if (!reader.take("Zz")) {
        const bool east = reader.take("+");
        if (!east) {
            reader.require("-");
        }
        milliseconds ahead = hours(reader.number(2, 23));
        reader.require(":");
        ahead += minutes(reader.number(2, 59));
        clock += east ? -ahead : ahead;
    }
    const year_month_day date(years, months, days);
    return reader.ended() && date.ok() ? std::optional(sys_days(date) + clock) : std::nullopt;
}

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
