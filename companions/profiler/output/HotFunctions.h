#pragma once

#include "companions/profiler/output/Profile.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::profiler {

/// The functions and the ways to them that cost most. All figures are nanoseconds.
///
/// A function is known by its name and the path of its module. Addresses without a name count
/// together for each module, as "[libx.so+0x...]": one by one they would tell a person nothing.
struct HotFunctions {
    struct Function {
        std::string name;
        std::string module;
        std::uint64_t self = 0;   ///< in the function itself
        std::uint64_t total = 0;  ///< also in what it calls; once a stack, however often it recurs
    };

    /// A call on the way from the root.
    struct Call {
        std::string name;
        std::string module;
        std::uint64_t total = 0;  ///< of all stacks that begin with the same calls
    };

    /// What stacks with the same functions in the same order have in common. A function that
    /// calls itself directly stands in it once, whatever the depth.
    struct Path {
        std::vector<Call> calls;  ///< the root first
        std::uint64_t self = 0;   ///< of the stacks that end with the last call
        bool complete = false;    ///< the first call is the root of the stack
    };

    std::uint64_t nanoseconds = 0;    ///< of all samples
    std::vector<Function> functions;  ///< by `self`, then by `total`, the greatest first
    std::vector<Path> paths;          ///< by `self`, the greatest first
};

/// The name under which the addresses without a name in the module `path` count: "[libx.so+0x...]"
/// for "/usr/lib/libx.so", "[kernel+0x...]" for "[kernel]".
std::string namelessIn(std::string_view path);

/// Returns at most `mostFunctions` functions and `mostPaths` paths of `profile`. Without paths it
/// is quick enough to be asked once a second.
HotFunctions findHotFunctions(const Profile& profile, std::size_t mostFunctions,
                              std::size_t mostPaths);

}  // namespace kolvan::profiler
