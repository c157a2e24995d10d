#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/engine/ProcessNews.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// Watches as a debugger does, where nothing better is allowed: stops a thread, copies its stack,
/// lets it go on. Only threads that have run since the last look are stopped, or, when waits are
/// looked for, those that have not run of late; what a sample stands for is what the system has
/// accounted to the thread since the last look.
///
/// Nothing here waits for a thread to stop. SIGCHLD tells of stops, so whoever uses it calls
/// `deliver` then, too. A target that is traced already cannot be watched.
class PtraceEngine : public Engine {
public:
    static constexpr unsigned kHighestFrequency = 100;

    explicit PtraceEngine(const EngineSettings& engineSettings);
    PtraceEngine(const PtraceEngine&) = delete;
    PtraceEngine& operator=(const PtraceEngine&) = delete;
    ~PtraceEngine() override;

    void attach(pid_t process, EventSink& sink) override;
    int descriptor() const noexcept override { return timer.get(); }
    void deliver(EventSink& sink) override;
    void finish(EventSink& sink) override;
    EngineReport report() const override;

private:
    struct Thread {
        pid_t process = 0;
        std::uint64_t cpu = 0;   // nanoseconds, when it was last looked at
        std::uint64_t seen = 0;  // the same, when the last look was due
        std::uint64_t time = 0;  // of the last look
        bool asked = false;      // to stop, which it has not done yet
    };

    bool seizeUnknown(EventSink& sink);
    bool seize(pid_t process, pid_t thread);
    void noteRefusal(pid_t process, pid_t thread, int error);
    void askThreads();
    void handleStops(EventSink& sink);
    void handleEvent(pid_t thread, int event, int signal, EventSink& sink);
    bool welcome(pid_t thread, EventSink& sink);
    void handleExec(pid_t process, EventSink& sink);
    void look(pid_t thread, Thread& state, EventSink& sink);
    void handleEnds(EventSink& sink);
    void handleOtherEnds(EventSink& sink);
    bool handleEnd(pid_t id, EventSink& sink);
    void accountRest(pid_t thread, const Thread& state);
    void release();
    void letGo(pid_t thread, int event, int signal);
    void dropEnded();

    const EngineSettings settings;
    const unsigned frequency;
    FileDescriptor timer;
    pid_t target = 0;
    std::map<pid_t, Thread> threads;
    std::set<pid_t> refused;  // threads
    ProcessNews news;
    std::vector<std::byte> stack;
    std::uint64_t notBefore = 0;  // the next look, so that looking leaves time for other work
    bool isSlow = false;          // looks had to be put off
    std::uint64_t threadsBegun = 0;
    std::uint64_t accounted = 0;
};

}  // namespace kolvan::profiler
