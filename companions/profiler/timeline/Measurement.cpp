#include "companions/profiler/timeline/Measurement.h"

#include "companions/profiler/output/TextEscape.h"

#include <algorithm>
#include <string_view>

#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::int64_t kShortestRatePeriod = 40'000;
constexpr double kMostThreadCpu = 100;

/// A count that became smaller belongs to a new thread that was given an old number.
std::uint64_t difference(std::uint64_t now, std::uint64_t before) {
    return now >= before ? now - before : now;
}

/// Time and CPU time are not read at the same moment, so that busy processors may seem to be more
/// than busy; what exceeds `most` percent is that error.
double cpuPercent(std::uint64_t nanoseconds, std::int64_t microseconds, double most) {
    return microseconds <= 0 ? 0
                             : std::min(most, static_cast<double>(nanoseconds) /
                                                  static_cast<double>(microseconds) / 10);
}

double perSecond(std::uint64_t count, std::int64_t microseconds) {
    return microseconds <= 0 ? 0
                             : static_cast<double>(count) * 1e6 / static_cast<double>(microseconds);
}

std::string_view stateName(char state) {
    switch (state) {
        case 'R':
            return "running";
        case 'S':
            return "sleeping";
        case 'D':
            return "waiting for a device";
        case 'T':
            return "stopped";
        case 't':
            return "traced";
        case 'Z':
        case 'X':
            return "ended";
        case 'I':
            return "idle";
        default:
            return "unknown";
    }
}

std::string cpuCounterName(const ThreadReading& thread) {
    return "CPU % " + thread.name + " (" + std::to_string(thread.id) + ")";
}

}  // namespace

void Measurement::add(const ProcessReading& reading, std::int64_t time) {
    const bool first = result.samples++ == 0;
    for (const ThreadReading& thread : reading.threads) {
        follow(thread, time);
    }
    dropVanished(time);
    addLevels(reading, time);
    if (first) {
        firstTime = time;
        firstCpu = reading.cpuNanoseconds;
    }
    closeCpu(reading.cpuNanoseconds, time);
    const std::int64_t period = time - baseTime;
    if (!first && period >= kShortestRatePeriod) {
        addThreadRates(time, period);
        addProcessRates(reading, time, period);
    }
    if (first || period >= kShortestRatePeriod) {
        baseCpu = reading.cpuNanoseconds;
        baseIo = reading.io;
        baseTime = time;
    }
}

void Measurement::finish(std::int64_t time) {
    for (const auto& [id, track] : tracks) {
        endSlice(track, time);
    }
    tracks.clear();
}

void Measurement::closeCpu(std::uint64_t cpuNanoseconds, std::int64_t time) {
    const std::int64_t period = time - firstTime;
    if (period >= kShortestRatePeriod) {
        result.cpuMeasured = true;
        result.cpuAverage = cpuPercent(difference(cpuNanoseconds, firstCpu), period, mostCpu);
        // The time since the last rate belongs to no rate.
        result.cpuMost = std::max(result.cpuMost, result.cpuAverage);
    }
}

unsigned Measurement::onlineProcessors() {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count < 1 ? 1U : static_cast<unsigned>(count);
}

void Measurement::follow(const ThreadReading& thread, std::int64_t time) {
    const auto [place, isNew] = tracks.try_emplace(thread.id);
    Track& track = place->second;
    if (isNew) {
        trace.nameThread(thread.id, thread.name);
        track.stateSince = time;
        // A thread that was there from the beginning has a past that is not ours to report.
        track.base = result.samples == 1 ? thread : ThreadReading();
    } else {
        if (track.last.name != thread.name) {
            showThreadCpu(track, 0, time);
            trace.nameThread(thread.id, thread.name);
        }
        if (track.last.state != thread.state) {
            endSlice(track, time);
            track.stateSince = time;
        }
    }
    track.last = thread;
    track.round = result.samples;
}

void Measurement::showThreadCpu(Track& track, double percent, std::int64_t time) {
    std::string text = decimalText(percent, 1);
    if (text != track.shownCpu) {
        trace.counter(cpuCounterName(track.last), time, {{"cpu", percent}});
        track.shownCpu = std::move(text);
    }
}

void Measurement::dropVanished(std::int64_t time) {
    for (auto place = tracks.begin(); place != tracks.end();) {
        Track& track = place->second;
        if (track.round == result.samples) {
            ++place;
            continue;
        }
        endSlice(track, time);
        showThreadCpu(track, 0, time);
        place = tracks.erase(place);
    }
}

void Measurement::endSlice(const Track& track, std::int64_t time) {
    if (drawsStates) {
        trace.slice(track.last.id, stateName(track.last.state), track.stateSince,
                    time - track.stateSince);
    }
}

void Measurement::addLevels(const ProcessReading& reading, std::int64_t time) {
    const bool first = result.samples == 1;
    const std::size_t threads = reading.threads.size();
    if (first || threads != result.threadsNow) {
        trace.counter("Threads", time, {{"count", static_cast<double>(threads)}});
    }
    result.threadsNow = threads;
    result.threadsMost = std::max(result.threadsMost, threads);
    if (!reading.memory) {
        return;
    }
    const MemoryReading& memory = *reading.memory;
    if (first || memory.resident != lastMemory.resident) {
        trace.counter("Resident memory KiB", time,
                      {{"resident", static_cast<double>(memory.resident)}});
    }
    if (first || memory.size != lastMemory.size) {
        trace.counter("Virtual memory KiB", time, {{"size", static_cast<double>(memory.size)}});
    }
    lastMemory = memory;
    result.residentNow = memory.resident;
    result.residentMost = std::max(result.residentMost, memory.resident);
}

void Measurement::addThreadRates(std::int64_t time, std::int64_t period) {
    std::uint64_t voluntary = 0;
    std::uint64_t involuntary = 0;
    for (auto& [id, track] : tracks) {
        const ThreadReading& now = track.last;
        const ThreadReading& before = track.base;
        voluntary += difference(now.voluntarySwitches, before.voluntarySwitches);
        involuntary += difference(now.involuntarySwitches, before.involuntarySwitches);
        showThreadCpu(track,
                      cpuPercent(difference(now.cpuNanoseconds, before.cpuNanoseconds), period,
                                 kMostThreadCpu),
                      time);
        track.base = track.last;
    }
    trace.counter("Context switches/s", time,
                  {{"voluntary", perSecond(voluntary, period)},
                   {"involuntary", perSecond(involuntary, period)}});
}

void Measurement::addProcessRates(const ProcessReading& reading, std::int64_t time,
                                  std::int64_t period) {
    result.cpuNow = cpuPercent(difference(reading.cpuNanoseconds, baseCpu), period, mostCpu);
    result.cpuMost = std::max(result.cpuMost, result.cpuNow);
    result.cpu.add(result.cpuNow);
    trace.counter("CPU %", time, {{"total", result.cpuNow}});
    if (!reading.io || !baseIo) {
        return;
    }
    const auto rate = [period](std::uint64_t now, std::uint64_t before) {
        return perSecond(difference(now, before), period);
    };
    trace.counter("I/O bytes/s", time,
                  {{"read", rate(reading.io->read, baseIo->read)},
                   {"written", rate(reading.io->written, baseIo->written)}});
    trace.counter("Storage bytes/s", time,
                  {{"read", rate(reading.io->storageRead, baseIo->storageRead)},
                   {"written", rate(reading.io->storageWritten, baseIo->storageWritten)}});
}

}  // namespace kolvan::profiler
