#pragma once

#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/engine/PerfEvent.h"
#include "companions/profiler/engine/PerfRing.h"

#include <cstdint>
#include <memory>
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
    struct Processor;

    void introduce(pid_t process, EventSink& sink) const;
    /// A thread that sleeps already, perhaps for ever, makes no record of it.
    void lookAtSleeping(pid_t process, EventSink& sink) const;
    void attachThreads(pid_t process);
    bool attachThread(pid_t thread);
    FileDescriptor open(pid_t thread, int processor);
    void mapRing(Processor& processor, int event);
    void lookAgain(EventSink& sink);
    void noteStart(const perf_event_header& record);
    void deliverUntil(std::uint64_t horizon, EventSink& sink);
    void readCounts();
    void addLimit(const std::string& sentence);

    const EngineSettings settings;
    perf_event_attr description;
    FileDescriptor arrivals;  // becomes readable when a ring is half full
    std::vector<std::unique_ptr<Processor>> processors;
    std::set<pid_t> watched;                  // processes whose records are wanted
    std::set<pid_t> known;                    // threads that are watched, until the second look
    std::optional<std::uint64_t> secondLook;  // when threads are looked for once more
    std::uint64_t threadsWatched = 0;         // at the attachment
    std::uint64_t threadsRefused = 0;
    std::uint64_t lost = 0;
    std::uint64_t counted = 0;
    std::vector<std::string> limits;
};

}  // namespace kolvan::profiler
