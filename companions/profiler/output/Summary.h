#pragma once

#include "companions/profiler/output/Figures.h"
#include "companions/profiler/output/ProfileSummary.h"

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kolvan::profiler {

/// A finished collection in short.
struct Summary {
    std::string target;  ///< the command line of what was measured
    pid_t pid = 0;
    std::string reason;        ///< why it ended, as one word for programs
    std::string reasonText;    ///< the same for people
    std::string targetEnding;  ///< how a started command ended, in words; empty for others
    unsigned frequency = 0;
    double seconds = 0;
    std::uint64_t missedTicks = 0;
    Figures figures;
    std::string tracePath;
    std::optional<ProfileSummary> profile;  ///< none where only the timeline was asked for
};

/// The summary as a JSON object, for programs. Keys say their unit; those below "profile" that do
/// not are nanoseconds. What was not
/// measured is null.
std::string summaryJson(const Summary& summary);

/// The summary as lines of text, for people.
std::string summaryText(const Summary& summary);

}  // namespace kolvan::profiler
