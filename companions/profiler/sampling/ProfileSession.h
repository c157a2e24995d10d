#pragma once

#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/output/Profile.h"
#include "companions/profiler/sampling/ProfileRecorder.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// An engine at work, and the profile that comes of it. Used from one thread.
class ProfileSession {
public:
    /// Begins to watch `process`.
    /// @param beginTime nanoseconds of CLOCK_MONOTONIC from which the profile counts its time
    /// @param sourceLines whether to name lines of the source and inlined functions too
    /// @throws Failure when no engine that was asked for is allowed to
    ProfileSession(EngineChoice choice, const EngineSettings& settings, pid_t process,
                   std::uint64_t beginTime, bool sourceLines);

    /// Lets `listener` know of every turn of a thread from now on.
    /// @return false when the engine does not see them all
    bool listenToTurns(ProfileRecorder::TurnListener listener);

    /// To be polled for reading: it is time for `deliver`.
    int descriptor() const noexcept { return engine->descriptor(); }

    /// Takes in what has happened so far.
    void deliver() { engine->deliver(recorder); }

    /// Stops watching and ends the profile.
    void finish();

    /// The profile so far, with names; valid until the next call.
    const Profile& profile();

    /// What this engine, machine or user does not allow, as far as it is known, a sentence each.
    std::vector<std::string> limits() const;

    /// How much of the truth the profile tells so far. Its limits are those above, and what may
    /// explain that much is missing.
    Coverage coverage();

private:
    void attach(EngineChoice choice, const EngineSettings& settings, pid_t process);
    std::vector<std::string> limitsWith(const EngineReport& report) const;

    ProfileRecorder recorder;
    std::unique_ptr<Engine> engine;
    std::vector<std::string> refusals;  // of engines that would have been better
};

}  // namespace kolvan::profiler
