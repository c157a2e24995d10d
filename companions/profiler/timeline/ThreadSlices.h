#pragma once

#include "companions/profiler/output/TraceWriter.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>

#include <sys/types.h>

namespace kolvan::profiler {

/// Draws what threads do into the trace, one slice for each state, from every change of it. Times
/// are microseconds since the beginning of the collection.
///
/// A program may change its threads' states a hundred thousand times a second, and nobody can open
/// a trace of that: after `kManySlices` the shortest slices are left out, twice as long ones each
/// time the number has doubled. What is left out belongs to the slice behind it.
class ThreadSlices {
public:
    static constexpr std::size_t kManySlices = 50'000;

    /// @param traceWriter receives the slices; lives longer than this object
    explicit ThreadSlices(TraceWriter& traceWriter) : trace(traceWriter) {}

    /// The thread is in `state`, a text that lives on, from `time` on.
    void change(pid_t thread, std::string_view state, std::int64_t time);

    /// The thread has ended.
    void end(pid_t thread, std::int64_t time);

    /// Ends the open slices of all threads.
    void finish(std::int64_t time);

private:
    struct Track {
        std::string_view state;
        std::int64_t since = 0;
    };

    void draw(pid_t thread, const Track& track, std::int64_t time);

    TraceWriter& trace;
    std::map<pid_t, Track> tracks;
    std::size_t drawn = 0;
    std::size_t many = kManySlices;
    std::int64_t shortest = 0;
};

}  // namespace kolvan::profiler
