#include "companions/profiler/engine/PerfEngine.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/base/MonotonicTime.h"
#include "companions/profiler/engine/PerfRecord.h"
#include "companions/profiler/engine/SamplingRights.h"
#include "companions/profiler/engine/StackOfThread.h"
#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <limits>
#include <utility>

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// For which a ring has room at least, with all of their stacks.
constexpr std::size_t kSamplesInARing = 16;

/// Two processors write their records at the same time, and a record becomes visible a little
/// after its time was taken; nothing that is older than this is still on its way.
constexpr std::uint64_t kOnItsWay = 3'000'000;

/// Nanoseconds between two looks at what has been mapped, while records are lost all the time: one
/// takes up to some milliseconds. With thousands of threads it takes longer, and would itself be
/// what loses them; so it is put off by so many times as long.
constexpr std::uint64_t kBetweenLooks = 1'000'000'000;
constexpr std::uint64_t kRestAfterLook = 20;

/// An event for each thread on each processor is many descriptors: raises the limit, which is our
/// own and goes with us.
/// @return how many of them events may take
int raiseDescriptorLimit() {
    constexpr rlim_t kMost = std::numeric_limits<int>::max();
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return std::numeric_limits<int>::max();
    }
    const rlim_t former = std::exchange(limit.rlim_cur, limit.rlim_max);
    const rlim_t now = ::setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_max : former;
    return static_cast<int>(std::min(descriptorsForEvents(now), kMost));
}

}  // namespace

PerfEngine::PerfEngine(const EngineSettings& engineSettings)
    : settings(engineSettings),
      descriptorLimit(raiseDescriptorLimit()),
      description(describeEvent(engineSettings)),
      arrivals(::epoll_create1(EPOLL_CLOEXEC)) {}

PerfEngine::~PerfEngine() = default;

void PerfEngine::attach(pid_t process, EventSink& sink) {
    target = process;
    openRings();
    // The first pass is long where there are many threads, and the ones that begin meanwhile are
    // watched already only if their creator was.
    watch(unknownThreads(), sink);
    if (threadsWatched == 0) {
        throw Failure(ExitCode::NoTarget, "process " + std::to_string(process) + " has ended");
    }
    secondLook = unknownThreads();
    if (settings.waits) {
        lookAtSleeping(sink);
    }
}

/// A thread that sleeps already, perhaps for ever, makes no record of it.
void PerfEngine::lookAtSleeping(EventSink& sink) const {
    std::vector<std::byte> stack(settings.stackBytes);
    for (const pid_t process : watched) {
        for (const pid_t thread : threadsOf(process)) {
            StackSample sample;
            sample.process = process;
            sample.thread = thread;
            sample.time = monotonicNow();
            sample.registers = registersOfSleeping(process, thread);
            if (sample.registers) {
                const std::size_t bytes =
                    readStack(process, sample.registers->stackPointer(), stack);
                sample.stack = std::span(stack).first(bytes);
                sink.onSample(sample);
                sink.onTurn(process, thread, ThreadTurn::Waits, sample.time);
            }
        }
    }
}

void PerfEngine::openRings() {
    ProcessorRings rings = openProcessorRings();
    for (const ProcessorRing& processor : rings.all) {
        // Told once for each time that a ring fills: what else would say so for ever?
        epoll_event interest{EPOLLIN | EPOLLET, {}};
        if (::epoll_ctl(arrivals.get(), EPOLL_CTL_ADD, processor.owner.get(), &interest) != 0) {
            throw Failure(ExitCode::Failed, "cannot wait for samples: " + errorText(errno));
        }
    }
    // The kernel keeps room for a whole copy, however little there is to copy.
    description.sample_stack_user =
        static_cast<std::uint32_t>(std::min(settings.stackBytes, rings.bytes / kSamplesInARing));
    if (rings.bytes < rings.enough) {
        addLimit("Only " + std::to_string(rings.bytes / 1024) +
                 " KiB of memory for samples a processor: more locked memory "
                 "(ulimit -l, kernel.perf_event_mlock_kb) loses fewer.");
    }
    processors = std::move(rings.all);
}

/// The processes that are there right now and are to be sampled.
std::vector<pid_t> PerfEngine::wantedProcesses() const {
    return settings.children ? processesBelow(target) : std::vector<pid_t>{target};
}

/// Threads that nothing is known of, and that may be watched or not.
std::vector<PerfEngine::Sighting> PerfEngine::unknownThreads() const {
    std::vector<Sighting> found;
    for (const pid_t process : wantedProcesses()) {
        for (const pid_t thread : threadsOf(process)) {
            if (known.count(thread) == 0) {
                found.push_back({process, thread, monotonicNow()});
            }
        }
    }
    return found;
}

/// Watches those of the threads that are not known to be watched. @return whether there were any
bool PerfEngine::watch(const std::vector<Sighting>& sightings, EventSink& sink) {
    bool found = false;
    for (const auto& [process, thread, time] : sightings) {
        if (!known.insert(thread).second) {
            continue;
        }
        found = true;
        const int error = watchThread(thread);
        if (error == 0) {
            ++threadsWatched;
        } else if (error != ESRCH) {
            noteRefusal(error);
        }
        if (watched.insert(process).second) {
            introduce(process, sink);
        } else {
            sink.onName(process, thread, nameOf(process, thread));
        }
    }
    return found;
}

/// @return 0, or the number of the error; then it is not watched at all, because half of its time
///         would be a wrong figure
int PerfEngine::watchThread(pid_t thread) {
    std::vector<FileDescriptor> opened;
    for (const ProcessorRing& processor : processors) {
        opened.push_back(open(thread, processor));
        if (!opened.back()) {
            return errno;
        }
    }
    std::move(opened.begin(), opened.end(), std::back_inserter(events));
    return 0;
}

FileDescriptor PerfEngine::open(pid_t thread, const ProcessorRing& processor) {
    const int number = processor.number;
    const int owner = processor.owner.get();
    FileDescriptor event = openEvent(description, thread, number, owner);
    if (!event && errno == EINVAL && description.inherit_thread != 0) {
        description.inherit_thread = 0;
        addLimit("What children use is counted, though not sampled: Linux before 5.13.");
        event = openEvent(description, thread, number, owner);
    }
    if (!event && (errno == EACCES || errno == EPERM) && description.exclude_kernel == 0) {
        perf_event_attr withoutKernel = description;
        excludeKernel(withoutKernel);
        event = openEvent(withoutKernel, thread, number, owner);
        if (event) {
            description = withoutKernel;
            addLimit(std::string(settings.waits ? "How long threads wait is seen, but not where"
                                                : "Time in the kernel is not sampled") +
                     ": this user may not (kernel.perf_event_paranoid at most 1, or CAP_PERFMON, "
                     "helps).");
        }
    }
    if (event.get() >= descriptorLimit) {
        (void)event.close();  // it has written nothing
        errno = EMFILE;
    }
    return event;
}

/// The target itself must be watched; what else cannot be is said.
void PerfEngine::noteRefusal(int error) {
    if (threadsWatched == 0) {
        throw Failure(ExitCode::Failed, refusalOfProcess(error));
    }
    refusalError = threadsRefused++ == 0 ? error : refusalError;
}

void PerfEngine::introduce(pid_t process, EventSink& sink) const {
    for (const CodeMapping& mapping : codeMappingsOf(process)) {
        sink.onMapping(mapping);
    }
    for (const pid_t thread : threadsOf(process)) {
        sink.onName(process, thread, nameOf(process, thread));
    }
}

void PerfEngine::deliver(EventSink& sink) {
    const std::uint64_t horizon = monotonicNow() - kOnItsWay;
    std::array<epoll_event, 16> ready{};
    // Taken off the list of what is ready; the rings themselves are all looked into.
    while (::epoll_wait(arrivals.get(), ready.data(), ready.size(), 0) ==
           static_cast<int>(ready.size())) {
    }
    deliverUntil(horizon, sink);
    // A thread that began during the attachment has told so by now, if its creator was watched.
    // Whoever has not is watched from here on; and there may be others, whom he has created.
    if (!secondLook.empty() && horizon > secondLook.back().time + kOnItsWay) {
        secondLook = watch(secondLook, sink) ? unknownThreads() : std::vector<Sighting>();
        if (secondLook.empty()) {
            known.clear();
        }
    }
    lookAgainAfterLoss(horizon, sink);
}

/// Among what was lost may be what code was mapped and what threads are called, without which all
/// later samples there would have no names.
void PerfEngine::lookAgainAfterLoss(std::uint64_t time, EventSink& sink) {
    if (lost == lostBeforeLook || time < nextLook) {
        return;
    }
    lostBeforeLook = lost;
    const std::uint64_t begin = monotonicNow();
    for (const pid_t process : wantedProcesses()) {
        introduce(process, sink);
    }
    const std::uint64_t end = monotonicNow();
    nextLook = end + std::max(kBetweenLooks, kRestAfterLook * (end - begin));
}

void PerfEngine::finish(EventSink& sink) {
    for (const FileDescriptor& event : events) {
        (void)::ioctl(event.get(), PERF_EVENT_IOC_DISABLE, 0);  // an open event always obeys
    }
    deliverUntil(std::numeric_limits<std::uint64_t>::max(), sink);
}

void PerfEngine::deliverUntil(std::uint64_t horizon, EventSink& sink) {
    for (;;) {
        PerfRing* oldest = nullptr;
        std::uint64_t oldestTime = horizon;
        for (const ProcessorRing& processor : processors) {
            const perf_event_header* const record = processor.ring->peek();
            if (record != nullptr && timeOf(*record) <= oldestTime) {
                oldest = processor.ring.get();
                oldestTime = timeOf(*record);
            }
        }
        if (oldest == nullptr) {
            return;
        }
        const perf_event_header& record = *oldest->peek();
        lost += lossOf(record);
        if (record.type == PERF_RECORD_FORK) {
            noteStart(record);
        }
        if (isWanted(processOf(record))) {
            deliverRecord(record, settings.waits ? 0 : description.sample_period, sink);
        }
        oldest->consume();
    }
}

/// With children every process that has an event of ours is wanted, also one whose start was lost.
/// The kernel gives a thread that is being reaped the process -1.
bool PerfEngine::isWanted(pid_t process) const {
    return process > 0 && (settings.children || process == target);
}

void PerfEngine::noteStart(const perf_event_header& record) {
    watched.insert(processOf(record));
    ++threadsBegun;
    if (!secondLook.empty()) {
        known.insert(startedThreadOf(record));
    }
}

/// What all events have counted so far, and lost.
EventCounts PerfEngine::counts() const {
    EventCounts sum;
    for (const FileDescriptor& event : events) {
        const auto [count, lostRecords] = readCounts(event);
        sum.count += count;
        sum.lost += lostRecords;
    }
    return sum;
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
    report.hasTimers = true;
    report.period = settings.waits ? 0 : description.sample_period;
    // The ring tells of losses when it has room again, and so never of the last ones.
    const EventCounts all = counts();
    report.lost = std::max(lost, all.lost);
    report.threadsBegun = threadsBegun;
    report.accountedNanoseconds = settings.waits ? 0 : all.count;
    report.limits = limits;
    if (threadsRefused > 0) {
        const bool fewDescriptors = refusalError == EMFILE || refusalError == ENFILE;
        report.limits.push_back(
            std::to_string(threadsRefused) + " of " +
            std::to_string(threadsWatched + threadsRefused) +
            " threads are not sampled: " + errorText(refusalError) +
            (fewDescriptors ? "; a higher limit of open files (ulimit -n) helps." : "."));
    }
    return report;
}

}  // namespace kolvan::profiler
