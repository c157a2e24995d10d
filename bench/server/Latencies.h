#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::bench {

/// How long the lines of an output were on their way. Each begins with the time at which it was
/// written, in nanoseconds of the monotonic clock.
class Latencies {
public:
    /// @param base64 the next piece of the output
    void add(std::string_view base64, std::int64_t arrived);

    std::size_t count() const { return waits.size(); }

    /// @param share 0.5 for the median
    std::int64_t quantile(double share) const;

private:
    std::string unfinished;  // a line whose end has not come yet
    std::vector<std::int64_t> waits;
};

}  // namespace kolvan::bench
