#include "basekit2/process/PosixProcess.h"

#include "basekit2/object_registry.h"
#include "basekit2/process/Pipe.h"
#include "basekit2/process/SpawnPlan.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

namespace basekit2::process {

namespace {

// How long wait() reads on after the child has ended while somebody else holds a pipe open. Data
// that the child wrote is in the pipe already; this is for helpers of it that are just ending.
constexpr std::chrono::milliseconds kReadingGrace{1000};

// How long a child may take to end by itself after SIGTERM: enough to complete a trace file.
constexpr std::chrono::seconds kTerminationGrace{10};

// The highest descriptor of a child that the plan of its start leaves room for.
constexpr int kHighestAdditional = SpawnPlan::kLowestSource - 2;

int exitCodeOf(const siginfo_t& info) {
    return info.si_code == CLD_EXITED ? info.si_status : IProcess::kKilledBySignal + info.si_status;
}

void waitForExit(pid_t child, int options, siginfo_t& info) {
    while (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | options) != 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

}  // namespace

ref_ptr_t<IProcess> IProcess::create() {
    return make_ref_counted<PosixProcess>();
}

const std::string& environment_t::get_type() const {
    return get_none_type();
}

const std::string& PosixProcess::get_type() const {
    static const std::string& name =
        get_object_registry().register_type("dasID_basekit2::process::IProcess", false);
    return name;
}

PosixProcess::~PosixProcess() {
    {
        const std::lock_guard lock(stateMutex);
        abandoned = true;
        stateChanged.notify_all();
    }
    joinKiller();
    stopReading();
}

result_t PosixProcess::connectOutputStream(std::int32_t streamNumber,
                                           const ref_ptr_t<IPipeReaderCallback>& receiver) {
    if (streamNumber != STDOUT_FILENO && streamNumber != STDERR_FILENO) {
        return result_t::from_errno(EINVAL);
    }
    return addPipe(receiver, streamNumber);
}

result_t PosixProcess::openOutputPipe(const ref_ptr_t<IPipeReaderCallback>& receiver,
                                      std::string& childDescriptor) {
    if (nextAdditional > kHighestAdditional) {
        return result_t::from_errno(EMFILE);
    }
    const result_t added = addPipe(receiver, nextAdditional);
    if (!added.is_failure()) {
        childDescriptor = std::to_string(nextAdditional);
        ++nextAdditional;
    }
    return added;
}

result_t PosixProcess::addPipe(const ref_ptr_t<IPipeReaderCallback>& receiver, int target) {
    PipeEnds ends;
    if (const result_t opened = openPipe(ends); opened.is_failure()) {
        return opened;
    }
    // Room first: a pipe is kept with both its ends or not at all.
    childEnds.reserve(childEnds.size() + 1);
    pipes.push_back({receiver, std::move(ends.readEnd)});
    childEnds.push_back({std::move(ends.writeEnd), target});
    return result_t::no_error();
}

result_t PosixProcess::start(const std::string& executable,
                             generic_iterator_t<std::string> arguments,
                             const ref_ptr_t<environment_t>& environment,
                             const std::string& workingDirectory, std::uint32_t reserved1,
                             std::uint32_t reserved2, std::int32_t searchPath) {
    if (reserved1 != 0 || reserved2 != 0) {
        return result_t::from_errno(EINVAL);
    }
    std::vector<std::string> argumentList{executable};
    for (; !arguments.at_end(); arguments.next()) {
        argumentList.push_back(arguments.get());
    }

    const std::lock_guard lock(stateMutex);
    if (startCalled) {
        return result_t::from_errno(EALREADY);
    }
    startCalled = true;
    // The reader comes first: a child that has been started would have to be ended again.
    result_t started = startReading();
    if (!started.is_failure()) {
        started = spawn(executable, argumentList, environment, workingDirectory, searchPath != 0);
    }
    // Whatever came of it, our copies of the child's ends have to go: a pipe is at its end when
    // the last writing end is closed.
    childEnds.clear();
    if (started.is_failure()) {
        stopReading();
    } else {
        state = State::Running;
    }
    return started;
}

result_t PosixProcess::startReading() {
    if (!pipes.empty()) {
        try {
            pipeReader = std::make_unique<PipeReader>(std::move(pipes));
        } catch (const std::system_error& failure) {
            return result_t::from_errno(failure.code().value());
        }
    }
    return result_t::no_error();
}

result_t PosixProcess::spawn(const std::string& executable,
                             const std::vector<std::string>& arguments,
                             const ref_ptr_t<environment_t>& environment,
                             const std::string& workingDirectory, bool searchPath) {
    SpawnPlan plan;
    for (const ChildEnd& end : childEnds) {
        plan.mapDescriptor(end.descriptor.get(), end.target);
    }
    if (!workingDirectory.empty()) {
        plan.setWorkingDirectory(workingDirectory);
    }
    return plan.spawn(executable, arguments, environment ? &environment->get_variables() : nullptr,
                      searchPath, child);
}

int PosixProcess::wait() {
    const std::lock_guard waiting(waitMutex);
    reap();
    finishReading();
    joinKiller();
    const std::lock_guard lock(stateMutex);
    return exitCode;
}

void PosixProcess::reap() {
    pid_t running = -1;
    {
        const std::lock_guard lock(stateMutex);
        if (state != State::Running) {
            return;
        }
        running = child;
    }
    // The child is waited for without being reaped, then reaped under the lock that terminate()
    // takes: as long as it is a zombie its number belongs to nobody else.
    siginfo_t info{};
    waitForExit(running, WNOWAIT, info);
    const std::lock_guard lock(stateMutex);
    waitForExit(running, 0, info);
    exitCode = exitCodeOf(info);
    state = State::Reaped;
    stateChanged.notify_all();
}

void PosixProcess::finishReading() {
    childEnds.clear();
    if (pipeReader) {
        // What comes of it does not matter: the reader is stopped now, at its end or not.
        (void)pipeReader->waitForEnd(std::chrono::steady_clock::now() + kReadingGrace);
    }
    stopReading();
}

void PosixProcess::stopReading() noexcept {
    childEnds.clear();
    pipes.clear();
    pipeReader.reset();
}

result_t PosixProcess::terminate() {
    const std::lock_guard lock(stateMutex);
    if (state == State::NotStarted) {
        return result_t::from_errno(ESRCH);
    }
    if (state == State::Reaped) {
        return result_t::no_error();
    }
    if (::kill(child, SIGTERM) != 0) {
        return result_t::from_errno(errno);
    }
    if (!killer.joinable()) {
        try {
            killer = std::thread([this] { killAfterGrace(); });
        } catch (const std::system_error&) {
            // No thread that could wait for the grace time. Better an abrupt end than none.
            (void)::kill(child, SIGKILL);
        }
    }
    return result_t::no_error();
}

void PosixProcess::killAfterGrace() {
    std::unique_lock lock(stateMutex);
    const bool over = stateChanged.wait_for(lock, kTerminationGrace,
                                            [this] { return state == State::Reaped || abandoned; });
    if (!over) {
        // Cannot fail in a way that matters: the child is ours and has not been reaped.
        (void)::kill(child, SIGKILL);
    }
}

void PosixProcess::joinKiller() {
    std::thread ending;
    {
        const std::lock_guard lock(stateMutex);
        ending.swap(killer);
    }
    if (ending.joinable()) {
        ending.join();
    }
}

}  // namespace basekit2::process
