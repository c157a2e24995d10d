#pragma once

#include "collector/Collector.h"
#include "operations/ICommandRunner.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

namespace kolvan::test {

using Arguments = std::vector<std::string>;

/// What every run of the collector gets behind its own arguments.
Arguments withFeedbackOptions(Arguments arguments);

/// The three channels of one operation, recorded.
struct Channels {
    Transcript feedback;
    Transcript out;
    Transcript err;

    /// A messenger that writes to these channels, which must outlive it.
    cagnt1::operations::OperationMessenger messenger();
};

/// An install directory with a collector two directories deep: the test child, which logs its
/// arguments, collects until it is told to stop, passes commands and carries out any actions.
class InstalledCollector {
public:
    InstalledCollector();

    std::string installDirectory() const { return directory.entry("target"); }
    std::string packageDirectory() const { return directory.entry("target/package"); }
    std::string executable() const { return directory.entry("target/package/bin/kolvan-trcap"); }

    /// Replaces the collector by a shell script.
    void replaceBy(const std::string& script);

    /// Gives or takes the right to be executed.
    void setRunnable(bool runnable);

    /// The code that collections end with from now on.
    void setExitCode(int code);

    /// Arguments of every run so far, in the order in which they began.
    std::vector<Arguments> runs() const;

    /// A path in the directory that everything is removed with.
    std::string entry(const std::string& name) const { return directory.entry(name); }

private:
    TemporaryDirectory directory;
    std::string stateDirectory;
    Fifo control;
};

/// A collector whose runs are played by a function.
class StagedCollector : public cagnt1::operations::Collector {
public:
    using Run = std::function<int(const Arguments&, cagnt1::operations::OperationMessenger&)>;

    StagedCollector(std::string installDirectory, Run playedRun);

    int execute(const Arguments& args, cagnt1::operations::OperationMessenger& messenger) override;

    /// Arguments of every run so far, in the order in which they began.
    std::vector<Arguments> runs() const;

private:
    Run run;
    mutable std::mutex runsMutex;  // guards begun
    std::vector<Arguments> begun;
};

/// True for the arguments of the run that is a collection itself.
bool isCollection(const Arguments& arguments);

/// True when a thread of ours sleeps in a system call and does not leave it.
bool isAsleep(pid_t thread);

/// A call on a thread of its own. The thread is joined at the end; a call that does not return
/// ends the test program.
template <typename Result>
class WatchedCall {
public:
    explicit WatchedCall(std::function<Result()> work)
        : result(promise.get_future()), thread([this, work = std::move(work)] { run(work); }) {}

    ~WatchedCall() {
        if (result.valid()) {
            waitForReturn();
        }
        thread.join();
    }

    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;

    /// Waits until the call has returned or can get no further for now.
    /// @return whether it can get no further
    bool isHeldBack() {
        (void)eventually([this] { return hasReturned() || (number > 0 && isAsleep(number)); });
        return !hasReturned();
    }

    /// What the call returned or threw.
    Result get() {
        waitForReturn();
        return result.get();
    }

private:
    void run(const std::function<Result()>& work) {
        number = ::gettid();
        try {
            if constexpr (std::is_void_v<Result>) {
                work();
                promise.set_value();
            } else {
                promise.set_value(work());
            }
        } catch (...) {  // whatever it is, it is the result
            promise.set_exception(std::current_exception());
        }
    }

    bool hasReturned() const {
        return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

    void waitForReturn() const {
        if (result.wait_for(kDeadline) != std::future_status::ready) {
            giveUp("a call in the background did not return");
        }
    }

    std::promise<Result> promise;
    std::future<Result> result;
    std::atomic<pid_t> number{0};
    std::thread thread;  // last: it uses all of the above
};

/// The text of the `std::runtime_error` that `work` throws; a text that says so when it does not.
std::string errorOf(const std::function<void()>& work);

}  // namespace kolvan::test
