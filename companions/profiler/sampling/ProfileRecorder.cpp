#include "companions/profiler/sampling/ProfileRecorder.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

namespace kolvan::profiler {

namespace {

constexpr std::uint64_t kTenth = 100'000'000;  // nanoseconds

}  // namespace

ProfileRecorder::ProfileRecorder(Profile::Kind kind, std::uint64_t beginTime, bool sourceLines)
    : begin(beginTime),
      symbolizer(sourceLines),
      locations(profile, symbolizer),
      stacks(profile.stacks) {
    profile.kind = kind;
    profile.beginUnix = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
}

void ProfileRecorder::onSample(const StackSample& sample) {
    const std::uint32_t stack = stackOf(sample);
    Thread& thread = threadOf(sample.process, sample.thread);
    if (profile.kind == Profile::Kind::Wait) {
        thread.waitsAt = stack;
    } else {
        add(stack, thread.number, sample.time, sample.nanoseconds);
    }
}

std::uint32_t ProfileRecorder::stackOf(const StackSample& sample) {
    std::vector<std::uint32_t> numbers;
    // Whoever waits does it in the kernel's scheduler; what it has called there is worth knowing.
    if (profile.kind != Profile::Kind::Wait) {
        for (const std::uint64_t address : sample.kernelAddresses) {
            numbers.push_back(locations.inKernel(address));
        }
    }
    bool complete = true;
    if (sample.registers) {
        const AddressSpace& space = processes[sample.process].space;
        const UnwoundStack unwound = unwinder.unwind(*sample.registers, sample.stack, space);
        auto interrupted = unwound.interrupted.begin();
        for (std::size_t i = 0; i < unwound.addresses.size(); ++i) {
            const bool isNext =
                i == 0 || (interrupted != unwound.interrupted.end() && *interrupted == i);
            if (i > 0 && isNext) {
                ++interrupted;
            }
            // A call may be the last instruction of its function: the return address is another's.
            const std::uint64_t address = unwound.addresses[i] - (isNext ? 0 : 1);
            numbers.push_back(locations.inProcess(sample.process, space, address));
        }
        complete = unwound.end == UnwoundStack::End::Root;
    }
    return stacks.numberOf(numbers, complete);
}

void ProfileRecorder::add(std::uint32_t stack, std::uint32_t thread, std::uint64_t time,
                          std::uint64_t nanoseconds) {
    const auto tenth = static_cast<std::uint32_t>(time > begin ? (time - begin) / kTenth : 0);
    const auto [entry, isNew] =
        samples.emplace(std::tuple(stack, thread, tenth), profile.samples.size());
    if (isNew) {
        profile.samples.push_back({stack, thread, tenth, 0, 0});
    }
    Profile::Sample& sample = profile.samples[entry->second];
    ++sample.count;
    sample.nanoseconds += nanoseconds;
}

void ProfileRecorder::onMapping(const CodeMapping& mapping) {
    const MappedFile file{mapping.process, mapping.begin, mapping.end,
                          mapping.device,  mapping.inode, mapping.path};
    processes[mapping.process].space.map(
        {mapping.begin, mapping.end, mapping.fileOffset, mapping.path, objects.find(file)});
}

void ProfileRecorder::onStart(pid_t process, pid_t thread, pid_t parent) {
    if (process != parent) {
        const auto origin = processes.find(parent);
        processes[process] = origin == processes.end() ? Process() : origin->second;
    }
    threads.erase(thread);  // the number may have belonged to another one
}

void ProfileRecorder::onName(pid_t process, pid_t thread, const std::string& name) {
    if (process == thread) {
        processes[process].name = name;
    }
    Profile::Thread& named = profile.threads[threadOf(process, thread).number];
    named.name = name;
    named.processName = processes[process].name;
}

void ProfileRecorder::onExec(pid_t process) {
    processes[process].space = AddressSpace();
    symbolizer.forgetProcess(process);
}

void ProfileRecorder::onEnd(pid_t process, pid_t thread) {
    listener(process, thread, std::nullopt, latest);
    threads.erase(thread);
    if (process == thread) {
        symbolizer.refreshProcess(process);
        processes.erase(process);
    }
}

void ProfileRecorder::onTurn(pid_t process, pid_t thread, ThreadTurn turn, std::uint64_t time) {
    latest = time;
    listener(process, thread, turn, time);
    if (profile.kind != Profile::Kind::Wait) {
        return;
    }
    Thread& subject = threadOf(process, thread);
    if (turn == ThreadTurn::Waits) {
        subject.waitsSince = time;
    } else {
        endWaiting(subject, time);
    }
}

void ProfileRecorder::endWaiting(Thread& thread, std::uint64_t time) {
    if (thread.waitsSince && time > *thread.waitsSince) {
        const std::uint32_t stack = thread.waitsAt ? *thread.waitsAt : stacks.numberOf({}, false);
        add(stack, thread.number, *thread.waitsSince, time - *thread.waitsSince);
    }
    thread.waitsSince.reset();
    thread.waitsAt.reset();
}

ProfileRecorder::Thread& ProfileRecorder::threadOf(pid_t process, pid_t thread) {
    const auto known = threads.find(thread);
    if (known != threads.end()) {
        return known->second;
    }
    const auto number = static_cast<std::uint32_t>(profile.threads.size());
    const std::string& processName = processes[process].name;
    profile.threads.push_back({process, thread, processName, processName});
    return threads.emplace(thread, Thread{number, {}, {}}).first->second;
}

void ProfileRecorder::finish(std::uint64_t time) {
    for (auto& [id, thread] : threads) {
        endWaiting(thread, time);
    }
    profile.nanoseconds = time > begin ? time - begin : 0;
}

void ProfileRecorder::describeEngine(const std::string& name, std::uint64_t period) {
    profile.engine = name;
    profile.period = period;
}

const Profile& ProfileRecorder::named() {
    locations.name();
    return profile;
}

Coverage ProfileRecorder::coverage() {
    locations.name();
    Coverage coverage;
    for (const Profile::Sample& sample : profile.samples) {
        const Profile::Stack& stack = profile.stacks[sample.stack];
        coverage.samples += sample.count;
        coverage.sampledNanoseconds += sample.nanoseconds;
        coverage.incomplete += stack.complete ? 0 : sample.count;
        const bool hasName =
            !stack.locations.empty() && !profile.locations[stack.locations.front()].lines.empty();
        coverage.unnamed += hasName ? 0 : sample.count;
    }
    return coverage;
}

}  // namespace kolvan::profiler
