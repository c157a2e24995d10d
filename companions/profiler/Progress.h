#pragma once

#include "companions/profiler/control/Feedback.h"
#include "companions/profiler/output/Figures.h"
#include "companions/profiler/output/TerminalProgress.h"
#include "companions/profiler/sampling/ProfileSession.h"

namespace kolvan::profiler {

/// Tells how far a collection has come, to the reader of the feedback and to the person at the
/// terminal.
class Progress {
public:
    /// @param feedback outlives this object
    explicit Progress(Feedback& progressFeedback) : feedback(progressFeedback) {}

    /// @param profile none for a timeline alone
    void tell(double seconds, const Figures& figures, ProfileSession* profile);

    /// Takes the line off the terminal.
    void clear() { terminal.clear(); }

private:
    Feedback& feedback;
    TerminalProgress terminal;
};

}  // namespace kolvan::profiler
