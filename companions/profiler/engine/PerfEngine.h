#pragma once

#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/engine/PerfEvent.h"
#include "companions/profiler/engine/ProcessorRings.h"

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

namespace kolvan::profiler {

/// Watches through perf_event_open(2): an event for each thread on each processor, which new
/// threads and processes inherit, and one ring for each processor.
class PerfEngine : public Engine {
public:
    explicit PerfEngine(const EngineSettings& engineSettings);
    PerfEngine(const PerfEngine&) = delete;
    PerfEngine& operator=(const PerfEngine&) = delete;
    ~PerfEngine() override;

    void attach(pid_t process, EventSink& sink) override;
    int descriptor() const noexcept override { return arrivals.get(); }
    void deliver(EventSink& sink) override;
    void finish(EventSink& sink) override;
    EngineReport report() const override;

private:
    /// A thread that was there at `time`.
    struct Sighting {
        pid_t process = 0;
        pid_t thread = 0;
        std::uint64_t time = 0;
    };

    void lookAtSleeping(EventSink& sink) const;
    void openRings();
    std::vector<pid_t> wantedProcesses() const;
    std::vector<Sighting> unknownThreads() const;
    bool watch(const std::vector<Sighting>& sightings, EventSink& sink);
    int watchThread(pid_t thread);
    FileDescriptor open(pid_t thread, const ProcessorRing& processor);
    void noteRefusal(int error);
    void introduce(pid_t process, EventSink& sink) const;
    bool isWanted(pid_t process) const;
    void noteStart(const perf_event_header& record);
    void lookAgainAfterLoss(std::uint64_t time, EventSink& sink);
    void deliverUntil(std::uint64_t horizon, EventSink& sink);
    EventCounts counts() const;
    void addLimit(const std::string& sentence);

    const EngineSettings settings;
    const int descriptorLimit;  // numbers from here on are left to the rest of the program
    perf_event_attr description;
    FileDescriptor arrivals;  // becomes readable when there is much in a ring
    std::vector<ProcessorRing> processors;
    std::vector<FileDescriptor> events;
    pid_t target = 0;
    std::set<pid_t> watched;           // processes whose records are wanted
    std::set<pid_t> known;             // threads that need no second look; empty after it
    std::vector<Sighting> secondLook;  // threads that may have begun unseen; empty after it
    std::uint64_t threadsBegun = 0;
    std::uint64_t threadsWatched = 0;  // those that have inherited no event
    std::uint64_t threadsRefused = 0;
    int refusalError = 0;  // of the first of them
    std::uint64_t lost = 0;
    std::uint64_t lostBeforeLook = 0;  // as `lost` was when mappings were looked at again
    std::uint64_t nextLook = 0;        // of that kind; nanoseconds of CLOCK_MONOTONIC
    std::vector<std::string> limits;
};

}  // namespace kolvan::profiler
