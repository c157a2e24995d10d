#pragma once

#include "companions/profiler/output/HotFunctions.h"
#include "companions/profiler/output/Profile.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kolvan::profiler {

/// A profile in short.
struct ProfileSummary {
    static constexpr std::size_t kFunctions = 10;
    static constexpr std::size_t kPaths = 3;

    Profile::Kind kind = Profile::Kind::Cpu;
    std::string engine;
    std::uint64_t period = 0;  ///< nanoseconds
    Coverage coverage;
    HotFunctions hot;
    std::string path;  ///< of the file with the whole profile
};

/// Returns `profile`, which was written to the file `path`, in short.
ProfileSummary summarize(const Profile& profile, Coverage coverage, std::string path);

/// "cpu" or "wait".
std::string kindWord(Profile::Kind kind);

/// Says in one line, without a line end, how much of the truth a profile tells.
std::string coverageText(Profile::Kind kind, const Coverage& coverage);

/// `part` of `whole` as a share between 0 and 1; 0 of nothing.
double shareOf(std::uint64_t part, std::uint64_t whole);

}  // namespace kolvan::profiler
