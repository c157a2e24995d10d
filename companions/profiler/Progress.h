#pragma once

#include "companions/profiler/control/Feedback.h"
#include "companions/profiler/output/Figures.h"
#include "companions/profiler/output/TerminalProgress.h"
#include "companions/profiler/sampling/ProfileSession.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace kolvan::profiler {

/// Tells how far a collection has come, to the reader of the feedback and to the person at the
/// terminal.
class Progress {
public:
    /// @param feedback outlives this object
    explicit Progress(Feedback& progressFeedback) : feedback(progressFeedback) {}

    /// @param profile none for a timeline alone
    void tell(double seconds, const Figures& figures, ProfileSession* profile);

    /// Tells the reader of the feedback what is not to be had, each sentence once, waiting at most
    /// `patience` for room for each.
    void tellLimits(const std::vector<std::string>& limits, std::chrono::milliseconds patience);

    /// Takes the line off the terminal.
    void clear() { terminal.clear(); }

private:
    void addProfile(ProfileSession& profile, double seconds,
                    std::vector<Feedback::Attribute>& attributes, std::string& line);

    Feedback& feedback;
    TerminalProgress terminal;
    double lastSeconds = 0;         // of the collection, when it was told of last
    std::uint64_t lastSamples = 0;  // as many as there were then
    std::set<std::string> toldLimits;
};

}  // namespace kolvan::profiler
