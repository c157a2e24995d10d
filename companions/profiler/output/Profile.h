#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// What a collection has found out, named and ready to be written: tables that refer to each other
/// by position.
struct Profile {
    /// What a sample's nanoseconds are.
    enum class Kind { Cpu, Wait };

    /// A file whose code was seen, or the kernel ("[kernel]"), or code without a file ("[anon]").
    struct Module {
        std::string path;
        std::string buildId;      ///< lower-case hexadecimal digits; empty when there is none
        std::uint64_t begin = 0;  ///< addresses of its code, as the file itself counts them
        std::uint64_t end = 0;
        std::uint64_t fileOffset = 0;  ///< of `begin`
    };

    struct Function {
        std::string name;        ///< demangled
        std::string systemName;  ///< as the symbol table has it
        std::string file;        ///< source file; empty when it is not known
    };

    /// One call in the source at an address.
    struct Line {
        std::uint32_t function = 0;  ///< position in `functions`
        std::uint32_t number = 0;    ///< line of the source; 0 when it is not known
    };

    /// An address in a module. Several lines, the innermost first, where functions are inlined;
    /// none where the address has no name.
    struct Location {
        std::uint32_t module = 0;  ///< position in `modules`
        std::uint64_t address = 0;
        std::vector<Line> lines;
    };

    struct Thread {
        pid_t process = 0;
        pid_t id = 0;
        std::string name;
        std::string processName;
    };

    struct Stack {
        std::vector<std::uint32_t> locations;  ///< positions in `locations`, the innermost first
        bool complete = false;                 ///< it reaches its root
    };

    /// All samples of one thread with one stack within one tenth of a second.
    struct Sample {
        std::uint32_t stack = 0;   ///< position in `stacks`
        std::uint32_t thread = 0;  ///< position in `threads`
        std::uint32_t tenth = 0;   ///< of a second since the beginning
        std::uint64_t count = 0;
        std::uint64_t nanoseconds = 0;
    };

    const Stack& stackOf(const Sample& sample) const { return stacks[sample.stack]; }

    Kind kind = Kind::Cpu;
    std::string engine;             ///< "perf" or "ptrace"
    std::uint64_t period = 0;       ///< nanoseconds between two samples of a busy thread
    std::int64_t beginUnix = 0;     ///< nanoseconds since 1970
    std::uint64_t nanoseconds = 0;  ///< how long it was collected
    std::vector<Module> modules;
    std::vector<Function> functions;
    std::vector<Location> locations;
    std::vector<Thread> threads;
    std::vector<Stack> stacks;
    std::vector<Sample> samples;
};

/// How much of the truth a profile tells. Shares are between 0 and 1.
struct Coverage {
    std::uint64_t sampledNanoseconds = 0;    ///< samples times their period
    std::uint64_t accountedNanoseconds = 0;  ///< CPU time of the same processes by the system
    std::uint64_t samples = 0;
    std::uint64_t lost = 0;        ///< samples and records that the system could not hand over
    std::uint64_t incomplete = 0;  ///< samples whose stack did not reach its root
    std::uint64_t unnamed = 0;     ///< samples whose innermost address has no name
    std::vector<std::string>
        limits;  ///< what this engine, machine or user does not allow, a sentence each
};

}  // namespace kolvan::profiler
