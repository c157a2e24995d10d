#pragma once

#include "companions/profiler/engine/EventSink.h"
#include "companions/profiler/objects/ObjectStore.h"
#include "companions/profiler/output/Profile.h"
#include "companions/profiler/sampling/LocationTable.h"
#include "companions/profiler/sampling/StackTable.h"
#include "companions/profiler/symbols/Symbolizer.h"
#include "companions/profiler/unwind/AddressSpace.h"
#include "companions/profiler/unwind/Unwinder.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include <sys/types.h>

namespace kolvan::profiler {

/// Turns what an engine sees into a profile: unwinds each stack at once, so that no copy of one is
/// kept, and adds it up. Used from one thread.
class ProfileRecorder final : public EventSink {
public:
    /// @param beginTime nanoseconds of CLOCK_MONOTONIC from which the profile counts its time
    /// @param sourceLines whether to name lines of the source and inlined functions too
    ProfileRecorder(Profile::Kind kind, std::uint64_t beginTime, bool sourceLines);
    ProfileRecorder(const ProfileRecorder&) = delete;
    ProfileRecorder& operator=(const ProfileRecorder&) = delete;
    ~ProfileRecorder() = default;

    void onSample(const StackSample& sample) override;
    void onMapping(const CodeMapping& mapping) override;
    void onStart(pid_t process, pid_t thread, pid_t parent) override;
    void onName(pid_t process, pid_t thread, const std::string& name) override;
    void onExec(pid_t process) override;
    void onEnd(pid_t process, pid_t thread) override;
    void onTurn(pid_t process, pid_t thread, ThreadTurn turn, std::uint64_t time) override;

    /// Whoever wants to know of every turn of a thread, too; no turn is its end.
    using TurnListener = std::function<void(pid_t process, pid_t thread,
                                            std::optional<ThreadTurn> turn, std::uint64_t time)>;
    void listenToTurns(TurnListener turnListener) { listener = std::move(turnListener); }

    /// Ends the profile at `time`: what waits still has waited up to then.
    void finish(std::uint64_t time);

    /// Notes what the samples come from.
    /// @param period nanoseconds between two samples of a busy thread
    void describeEngine(const std::string& name, std::uint64_t period);

    /// The profile so far, with names for everything that has been seen. Valid until the next
    /// event.
    const Profile& named();

    /// What the profile knows of its own gaps; what only an engine knows is left out.
    Coverage coverage();

private:
    struct Process {
        AddressSpace space;
        std::string name;
    };

    struct Thread {
        std::uint32_t number = 0;                 // in the profile
        std::optional<std::uint32_t> waitsAt;     // its stack when it gave up its processor
        std::optional<std::uint64_t> waitsSince;  // nothing while it does not wait
    };

    Thread& threadOf(pid_t process, pid_t thread);
    std::uint32_t stackOf(const StackSample& sample);
    void endWaiting(Thread& thread, std::uint64_t time);
    void add(std::uint32_t stack, std::uint32_t thread, std::uint64_t time,
             std::uint64_t nanoseconds);

    const std::uint64_t begin;
    Profile profile;
    ObjectStore objects;
    Unwinder unwinder;
    Symbolizer symbolizer;
    LocationTable locations;
    StackTable stacks;
    TurnListener listener = [](pid_t, pid_t, std::optional<ThreadTurn>, std::uint64_t) {};
    std::uint64_t latest = 0;  // time of the last turn
    std::map<pid_t, Process> processes;
    std::map<pid_t, Thread> threads;
    std::map<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>, std::size_t> samples;
};

}  // namespace kolvan::profiler
