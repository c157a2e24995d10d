#pragma once

#include "companions/profiler/engine/EventSink.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// Which engine is wanted: the best one that the system allows, or one by name.
enum class EngineChoice { Automatic, Perf, Ptrace };

/// What an engine is asked to look at.
struct EngineSettings {
    bool waits = false;        ///< where threads wait, instead of where they spend processor time
    unsigned frequency = 999;  ///< samples of a busy thread in a second
    bool children = true;      ///< also the processes that the target starts
    /// Copied of a stack at most. A sample of the kernel is never larger than 64 KiB.
    std::size_t stackBytes = std::size_t{60} * 1024;
};

/// What an engine can say of its own work.
struct EngineReport {
    std::string name;
    bool seesTurns = false;          ///< every change of what a thread does reaches the sink
    bool hasTimers = false;          ///< a timer of each thread's own processor time makes samples
    std::uint64_t period = 0;        ///< nanoseconds between two samples of a busy thread
    std::uint64_t lost = 0;          ///< samples and records that the system could not hand over
    std::uint64_t threadsBegun = 0;  ///< while it watched, as far as it is told of them
    std::uint64_t accountedNanoseconds = 0;  ///< processor time of everything that was looked at
    std::vector<std::string> limits;         ///< what was not to be had, a sentence each
};

/// Watches processes and hands over what it sees. Used from one thread.
class Engine {
public:
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    virtual ~Engine() = default;

    /// Begins to watch a process, all its threads and, if children are wanted, the processes below
    /// it. What it has mapped and what its threads are called reaches `sink` at once.
    /// @throws Failure when it cannot be watched at all; the text says what would help
    virtual void attach(pid_t process, EventSink& sink) = 0;

    /// To be polled for reading: it is time for `deliver`.
    virtual int descriptor() const noexcept = 0;

    /// Hands over what has happened up to a moment ago, in the order of time.
    virtual void deliver(EventSink& sink) = 0;

    /// Stops watching, and hands over the rest.
    virtual void finish(EventSink& sink) = 0;

    virtual EngineReport report() const = 0;

protected:
    Engine() = default;
};

}  // namespace kolvan::profiler
