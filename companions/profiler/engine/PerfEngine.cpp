#include "companions/profiler/engine/PerfEngine.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/PerfRecord.h"
#include "companions/profiler/engine/StackOfThread.h"
#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// All rings together; a sample with its stack takes 33 KiB.
constexpr std::size_t kRingBudget = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kLargestRing = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kSmallestRing = std::size_t{128} * 1024;

/// Two processors write their records at the same time, and a record becomes visible a little
/// after its time was taken; nothing that is older than this is still on its way.
constexpr std::uint64_t kOnItsWay = 3'000'000;

std::uint64_t now() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::steady_clock::now().time_since_epoch())  // CLOCK_MONOTONIC
            .count());
}

/// The processors that a thread can run on today.
std::vector<int> processorNumbers() {
    std::vector<int> numbers;
    const long configured = ::sysconf(_SC_NPROCESSORS_CONF);
    for (int number = 0; number < configured; ++number) {
        numbers.push_back(number);
    }
    return numbers;
}

/// An event for each thread on each processor is many descriptors. The limit is our own, and goes
/// with us.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)::setrlimit(RLIMIT_NOFILE, &limit);  // then there are fewer, which is seen later
    }
}

std::string refusal(int error) {
    if (error == EACCES || error == EPERM) {
        return "the system does not let this user sample this process (perf_event_open: " +
               std::string(std::strerror(error)) + ")";
    }
    return "perf_event_open: " + std::string(std::strerror(error));
}

}  // namespace

/// What is open for one processor.
struct PerfEngine::Processor {
    int number = 0;
    std::unique_ptr<PerfRing> ring;
    std::vector<FileDescriptor> events;  // the first one has the ring, and the others write to it
};

PerfEngine::PerfEngine(const EngineSettings& engineSettings)
    : settings(engineSettings),
      description(describeEvent(engineSettings, true)),
      arrivals(::epoll_create1(EPOLL_CLOEXEC)) {
    raiseDescriptorLimit();
    for (const int number : processorNumbers()) {
        processors.push_back(std::make_unique<Processor>());
        processors.back()->number = number;
    }
}

PerfEngine::~PerfEngine() = default;

void PerfEngine::attach(pid_t process, EventSink& sink) {
    const auto processes =
        settings.children ? processesBelow(process) : std::vector<pid_t>{process};
    for (const pid_t each : processes) {
        attachThreads(each);
        watched.insert(each);
        introduce(each, sink);
        if (settings.waits) {
            lookAtSleeping(each, sink);
        }
    }
    secondLook = now();
    if (threadsRefused > 0) {
        addLimit(std::to_string(threadsRefused) + " of " +
                 std::to_string(threadsWatched + threadsRefused) + " threads are not sampled: " +
                 std::strerror(EMFILE) + "; a higher limit of open files (ulimit -n) helps.");
    }
}

void PerfEngine::attachThreads(pid_t process) {
    for (const pid_t thread : threadsOf(process)) {
        if (known.count(thread) == 0 && attachThread(thread)) {
            known.insert(thread);
            ++threadsWatched;
        }
    }
}

bool PerfEngine::attachThread(pid_t thread) {
    bool whole = false;
    for (const auto& processor : processors) {
        FileDescriptor event = open(thread, processor->number);
        if (!event) {
            const int error = errno;
            if (error == ESRCH) {
                return false;  // it has ended
            }
            if (error == ENODEV || error == ENXIO) {
                continue;  // the processor is switched off
            }
            if ((error == EMFILE || error == ENFILE) && threadsWatched > 0) {
                ++threadsRefused;
                return false;
            }
            throw Failure(ExitCode::Failed, refusal(error));
        }
        if (!processor->ring) {
            mapRing(*processor, event.get());
        } else if (::ioctl(event.get(), PERF_EVENT_IOC_SET_OUTPUT,
                           processor->events.front().get()) != 0) {
            throw Failure(ExitCode::Failed, "cannot join events of a processor: " +
                                                std::string(std::strerror(errno)));
        }
        processor->events.push_back(std::move(event));
        whole = true;
    }
    return whole;
}

FileDescriptor PerfEngine::open(pid_t thread, int processor) {
    FileDescriptor event = openEvent(description, thread, processor);
    if (!event && (errno == EACCES || errno == EPERM) && description.exclude_kernel == 0) {
        description = describeEvent(settings, false);
        event = openEvent(description, thread, processor);
        if (event) {
            addLimit(
                "Time in the kernel is not sampled: this user may not "
                "(kernel.perf_event_paranoid at most 1, or CAP_PERFMON, helps).");
        }
    }
    return event;
}

void PerfEngine::mapRing(Processor& processor, int event) {
    const std::size_t share = std::bit_floor(kRingBudget / processors.size());
    const std::size_t wanted = std::clamp(share, kSmallestRing, kLargestRing);
    for (std::size_t bytes = wanted; bytes >= kSmallestRing; bytes /= 2) {
        processor.ring = PerfRing::map(event, bytes);
        if (processor.ring) {
            // Of an event whose thread has ended, poll(2) says so for ever; an edge is told once.
            epoll_event interest{EPOLLIN | EPOLLET, {}};
            if (::epoll_ctl(arrivals.get(), EPOLL_CTL_ADD, event, &interest) != 0) {
                throw Failure(ExitCode::Failed,
                              "cannot wait for samples: " + std::string(std::strerror(errno)));
            }
            if (bytes < wanted) {
                addLimit("Only " + std::to_string(bytes / 1024) +
                         " KiB of memory for samples a processor: more locked memory "
                         "(ulimit -l, kernel.perf_event_mlock_kb) loses fewer.");
            }
            return;
        }
    }
    throw Failure(ExitCode::Failed,
                  "no memory that the kernel can write samples to (ulimit -l, "
                  "kernel.perf_event_mlock_kb): " +
                      std::string(std::strerror(errno)));
}

void PerfEngine::introduce(pid_t process, EventSink& sink) const {
    for (const CodeMapping& mapping : codeMappingsOf(process)) {
        sink.onMapping(mapping);
    }
    for (const pid_t thread : threadsOf(process)) {
        sink.onName(process, thread, nameOf(process, thread));
    }
}

void PerfEngine::lookAtSleeping(pid_t process, EventSink& sink) const {
    std::vector<std::byte> stack(settings.stackBytes);
    for (const pid_t thread : threadsOf(process)) {
        StackSample sample;
        sample.process = process;
        sample.thread = thread;
        sample.time = now();
        sample.registers = registersOfSleeping(process, thread);
        if (sample.registers) {
            const std::size_t bytes = readStack(process, sample.registers->stackPointer(), stack);
            sample.stack = std::span(stack).first(bytes);
            sink.onTurn(process, thread, ThreadTurn::Waits, sample.time);
            sink.onSample(sample);
        }
    }
}

void PerfEngine::deliver(EventSink& sink) {
    const std::uint64_t horizon = now() - kOnItsWay;
    std::array<epoll_event, 16> ready{};
    // Taken off the list of what is ready; the rings themselves are all looked into.
    while (::epoll_wait(arrivals.get(), ready.data(), ready.size(), 0) ==
           static_cast<int>(ready.size())) {
    }
    deliverUntil(horizon, sink);
    if (secondLook && horizon > *secondLook) {
        secondLook.reset();
        lookAgain(sink);
    }
}

void PerfEngine::lookAgain(EventSink& sink) {
    // A thread that began during the attachment is inherited, and its record has come by now, where
    // its creator was watched already. The others begin here.
    const std::set<pid_t> processes = watched;
    for (const pid_t process : processes) {
        attachThreads(process);
        for (const pid_t thread : threadsOf(process)) {
            sink.onName(process, thread, nameOf(process, thread));
        }
    }
    known.clear();
}

void PerfEngine::finish(EventSink& sink) {
    for (const auto& processor : processors) {
        for (const FileDescriptor& event : processor->events) {
            (void)::ioctl(event.get(), PERF_EVENT_IOC_DISABLE, 0);  // an open event always obeys
        }
    }
    deliverUntil(std::numeric_limits<std::uint64_t>::max(), sink);
    readCounts();
}

void PerfEngine::deliverUntil(std::uint64_t horizon, EventSink& sink) {
    for (;;) {
        Processor* oldest = nullptr;
        std::uint64_t oldestTime = horizon;
        for (const auto& processor : processors) {
            const perf_event_header* const record =
                processor->ring ? processor->ring->peek() : nullptr;
            if (record != nullptr && timeOf(*record) <= oldestTime) {
                oldest = processor.get();
                oldestTime = timeOf(*record);
            }
        }
        if (oldest == nullptr) {
            return;
        }
        const perf_event_header& record = *oldest->ring->peek();
        lost += lossOf(record);
        if (record.type == PERF_RECORD_FORK) {
            noteStart(record);
        }
        if (watched.count(processOf(record)) > 0) {
            deliverRecord(record, settings.waits ? 0 : description.sample_period, sink);
        }
        oldest->ring->consume();
    }
}

void PerfEngine::noteStart(const perf_event_header& record) {
    if (settings.children) {
        watched.insert(processOf(record));
    }
    if (secondLook) {
        known.insert(startedThreadOf(record));
    }
}

void PerfEngine::readCounts() {
    for (const auto& processor : processors) {
        for (const FileDescriptor& event : processor->events) {
            std::uint64_t count = 0;
            if (::read(event.get(), &count, sizeof count) == sizeof count) {
                counted += count;
            }
        }
    }
}

void PerfEngine::addLimit(const std::string& sentence) {
    if (std::find(limits.begin(), limits.end(), sentence) == limits.end()) {
        limits.push_back(sentence);
    }
}

EngineReport PerfEngine::report() const {
    EngineReport report;
    report.name = "perf";
    report.seesTurns = true;
    report.period = settings.waits ? 0 : description.sample_period;
    report.lost = lost;
    report.accountedNanoseconds = settings.waits ? 0 : counted;
    report.limits = limits;
    return report;
}

}  // namespace kolvan::profiler
