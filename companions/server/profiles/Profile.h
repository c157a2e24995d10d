#pragma once

#include "companions/server/profiles/CallTree.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::server::profiles {

/// A profile in memory: who called whom, and how much each sample found there.
///
/// All texts are UTF-8; what else they hold is whatever the profiled machine says, control
/// characters included. The same file always gives the same numbers in the same order.
///
/// Threads: views of one profile may be made by any number of threads at once.
struct Profile {
    /// What a value of a sample means: "samples" in "count", "cpu" in "nanoseconds".
    struct SampleType {
        std::string name;
        std::string unit;
    };

    struct Function {
        std::string name;    ///< "[libx.so+0x...]" for what has no name in libx.so
        std::string module;  ///< path of the file that the code is in; may be empty
    };

    struct Thread {
        std::int64_t process = 0;  ///< process id; 0: not known
        std::int64_t id = 0;       ///< thread id; 0: not known
        std::string name;
        std::string processName;
    };

    /// What samples have in common that were taken of a thread in the same tenth of a second.
    struct Moment {
        std::uint32_t thread = 0;                  ///< position in `threads`
        std::optional<std::int64_t> milliseconds;  ///< since the beginning of the collection
    };

    struct Sample {
        std::uint32_t node = 0;    ///< of the innermost call, in `calls`
        std::uint32_t moment = 0;  ///< position in `moments`
    };

    std::vector<SampleType> types;
    std::size_t defaultType = 0;  ///< what to show unless somebody asks for another one
    /// In the order of name and module, each once; with "[no stack]" for samples that have none.
    std::vector<Function> functions;
    std::vector<Thread> threads;  ///< in the order of process and thread id
    std::vector<Moment> moments;
    CallTree calls;                     ///< its functions are positions in `functions`
    std::vector<Sample> samples;        ///< in the order of the file
    std::vector<std::uint64_t> values;  ///< of all samples, `types.size()` each; no sum overflows
    std::vector<std::string> comments;
    std::int64_t beginNanoseconds = 0;     ///< since 1970; 0: not known
    std::int64_t durationNanoseconds = 0;  ///< 0: not known
};

/// How much memory a profile takes, in bytes.
std::size_t memoryOf(const Profile& profile);

}  // namespace kolvan::server::profiles
