#pragma once

#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/engine/EventSink.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// One event as a sink was given it; what its kind does not have is empty.
struct RecordedEvent {
    enum class Kind { Sample, Mapping, Start, Name, Exec, End, Turn };

    Kind kind = Kind::Sample;
    pid_t process = 0;
    pid_t thread = 0;
    pid_t parent = 0;
    std::uint64_t time = 0;
    std::uint64_t nanoseconds = 0;
    std::vector<std::uint64_t> kernelAddresses;
    bool hasRegisters = false;
    profiler::Registers registers;
    std::size_t stackBytes = 0;
    std::string text;  // a name, or the path of a mapping
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    profiler::ThreadTurn turn = profiler::ThreadTurn::Runs;
};

/// Keeps what an engine hands over, stacks aside.
class RecordedEvents final : public profiler::EventSink {
public:
    using Kind = RecordedEvent::Kind;

    void onSample(const profiler::StackSample& sample) override;
    void onMapping(const profiler::CodeMapping& mapping) override;
    void onStart(pid_t process, pid_t thread, pid_t parent) override;
    void onName(pid_t process, pid_t thread, const std::string& name) override;
    void onExec(pid_t process) override;
    void onEnd(pid_t process, pid_t thread) override;
    void onTurn(pid_t process, pid_t thread, profiler::ThreadTurn turn,
                std::uint64_t time) override;

    const std::vector<RecordedEvent>& all() const noexcept { return events; }
    std::vector<RecordedEvent> of(Kind kind) const;
    std::size_t count(Kind kind) const { return of(kind).size(); }

    /// Nanoseconds that the samples stand for together; of one process, where one is given.
    std::uint64_t sampledNanoseconds(pid_t process = 0) const;

private:
    std::vector<RecordedEvent> events;
};

/// Lets an engine deliver until `done`.
/// @return false when that has not come within a minute
bool deliverUntil(profiler::Engine& engine, RecordedEvents& events,
                  const std::function<bool()>& done);

}  // namespace kolvan::test
