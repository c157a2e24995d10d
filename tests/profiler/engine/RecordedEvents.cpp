#include "tests/profiler/engine/RecordedEvents.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include <poll.h>

namespace kolvan::test {

void RecordedEvents::onSample(const profiler::StackSample& sample) {
    RecordedEvent event;
    event.kind = Kind::Sample;
    event.process = sample.process;
    event.thread = sample.thread;
    event.time = sample.time;
    event.nanoseconds = sample.nanoseconds;
    event.kernelAddresses.assign(sample.kernelAddresses.begin(), sample.kernelAddresses.end());
    event.hasRegisters = sample.registers.has_value();
    event.registers = sample.registers.value_or(profiler::Registers());
    event.stackBytes = sample.stack.size();
    events.push_back(std::move(event));
}

void RecordedEvents::onMapping(const profiler::CodeMapping& mapping) {
    RecordedEvent event;
    event.kind = Kind::Mapping;
    event.process = mapping.process;
    event.begin = mapping.begin;
    event.end = mapping.end;
    event.text = mapping.path;
    events.push_back(std::move(event));
}

void RecordedEvents::onStart(pid_t process, pid_t thread, pid_t parent) {
    RecordedEvent event;
    event.kind = Kind::Start;
    event.process = process;
    event.thread = thread;
    event.parent = parent;
    events.push_back(std::move(event));
}

void RecordedEvents::onName(pid_t process, pid_t thread, const std::string& name) {
    RecordedEvent event;
    event.kind = Kind::Name;
    event.process = process;
    event.thread = thread;
    event.text = name;
    events.push_back(std::move(event));
}

void RecordedEvents::onExec(pid_t process) {
    RecordedEvent event;
    event.kind = Kind::Exec;
    event.process = process;
    events.push_back(std::move(event));
}

void RecordedEvents::onEnd(pid_t process, pid_t thread) {
    RecordedEvent event;
    event.kind = Kind::End;
    event.process = process;
    event.thread = thread;
    events.push_back(std::move(event));
}

void RecordedEvents::onTurn(pid_t process, pid_t thread, profiler::ThreadTurn turn,
                            std::uint64_t time) {
    RecordedEvent event;
    event.kind = Kind::Turn;
    event.process = process;
    event.thread = thread;
    event.turn = turn;
    event.time = time;
    events.push_back(std::move(event));
}

std::vector<RecordedEvent> RecordedEvents::of(Kind kind) const {
    std::vector<RecordedEvent> found;
    std::copy_if(events.begin(), events.end(), std::back_inserter(found),
                 [&](const RecordedEvent& event) { return event.kind == kind; });
    return found;
}

std::uint64_t RecordedEvents::sampledNanoseconds(pid_t process) const {
    std::uint64_t sum = 0;
    for (const RecordedEvent& event : events) {
        sum += process == 0 || event.process == process ? event.nanoseconds : 0;
    }
    return sum;
}

bool deliverUntil(profiler::Engine& engine, RecordedEvents& events,
                  const std::function<bool()>& done) {
    // A traced thread that stops is told by SIGCHLD, which nobody here receives; so it is looked
    // for every millisecond.
    constexpr int kMilliseconds = 1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        pollfd entry{engine.descriptor(), POLLIN, 0};
        (void)::poll(&entry, 1, kMilliseconds);
        engine.deliver(events);
    }
    return true;
}

}  // namespace kolvan::test
