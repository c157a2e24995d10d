#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// A profile.pb.gz as gzip and protoc read it. Functions are asked for by a part of their name,
/// "hotFunction" for "truth::(anonymous namespace)::hotFunction(unsigned long)".
struct ReadProfile {
    struct Sample {
        std::vector<std::string> functions;  ///< innermost first; empty for one without a name
        std::int64_t count = 0;
        std::int64_t nanoseconds = 0;
        std::string thread;
        pid_t process = 0;
        pid_t threadId = 0;

        bool isIn(std::string_view function) const;      ///< innermost
        bool contains(std::string_view function) const;  ///< anywhere on the stack
    };

    using Condition = std::function<bool(const Sample&)>;

    /// Reads the file.
    /// @throws std::runtime_error when it is no whole profile
    explicit ReadProfile(const std::string& path);

    /// Nanoseconds of the samples for which `condition` holds.
    std::int64_t nanoseconds(const Condition& condition) const;

    /// Shares of all nanoseconds, between 0 and 1.
    double self(std::string_view function) const;
    double total(std::string_view function) const;

    std::vector<Sample> samples;
};

}  // namespace kolvan::test
