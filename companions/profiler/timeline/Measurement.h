#pragma once

#include "companions/profiler/output/Figures.h"
#include "companions/profiler/output/TraceWriter.h"
#include "companions/profiler/timeline/ProcessProbe.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace kolvan::profiler {

/// Turns consecutive readings of a process into trace events and figures: the differences between
/// them become rates, equal states of a thread one slice. Times are microseconds since the
/// beginning of the collection.
///
/// The kernel adds up CPU time in steps of some milliseconds, so rates are taken over at least 40
/// ms: at high frequencies over several readings, while states and memory are followed in every
/// one. An average over less than that is no figure either.
class Measurement {
public:
    /// @param traceWriter receives the events; lives longer than this object
    /// @param processors that the process can use; no rate exceeds 100 % of each
    explicit Measurement(TraceWriter& traceWriter, unsigned processors = onlineProcessors())
        : trace(traceWriter), mostCpu(100.0 * processors) {}

    /// Leaves the states of threads to somebody who sees every change of them.
    void leaveStates() noexcept { drawsStates = false; }

    /// Takes in the next reading. The first one is the base that the second is compared with.
    void add(const ProcessReading& reading, std::int64_t time);

    /// Ends the open slices of all threads.
    void finish(std::int64_t time);

    /// Corrects the average with a last look at the target's CPU time.
    void closeCpu(std::uint64_t cpuNanoseconds, std::int64_t time);

    const Figures& figures() const noexcept { return result; }

private:
    struct Track {
        ThreadReading last;
        ThreadReading base;  // what the next rates are compared with
        std::int64_t stateSince = 0;
        std::string shownCpu;  // as last written; unchanged values need no event
        std::uint64_t round = 0;
    };

    static unsigned onlineProcessors();

    void follow(const ThreadReading& thread, std::int64_t time);
    void showThreadCpu(Track& track, double percent, std::int64_t time);
    void dropVanished(std::int64_t time);
    void endSlice(const Track& track, std::int64_t time);
    void addLevels(const ProcessReading& reading, std::int64_t time);
    void addThreadRates(std::int64_t time, std::int64_t period);
    void addProcessRates(const ProcessReading& reading, std::int64_t time, std::int64_t period);

    TraceWriter& trace;
    const double mostCpu;  // percent of one processor
    bool drawsStates = true;
    std::map<pid_t, Track> tracks;
    MemoryReading lastMemory;
    std::uint64_t baseCpu = 0;  // process and time that the next rates are compared with
    std::optional<IoReading> baseIo;
    std::int64_t baseTime = 0;
    std::int64_t firstTime = 0;
    std::uint64_t firstCpu = 0;
    Figures result;
};

}  // namespace kolvan::profiler
