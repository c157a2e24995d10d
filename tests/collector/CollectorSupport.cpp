#include "tests/collector/CollectorSupport.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <sched.h>
#include <sys/stat.h>

namespace kolvan::test {

using cagnt1::operations::OperationMessenger;

namespace {

std::string madeDirectory(const std::string& path) {
    std::filesystem::create_directories(path);
    return path;
}

/// What the kernel tells of the system call that a thread is in.
std::string systemCallOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string line;
    std::getline(file, line);
    return line;
}

}  // namespace

Arguments withFeedbackOptions(Arguments arguments) {
    arguments.insert(arguments.end(), {"--ui-output-format", "xml", "--ui-output-fd", "3"});
    return arguments;
}

OperationMessenger Channels::messenger() {
    return {[this](const std::string& text) { feedback.append(text); },
            [this](const std::string& text) { out.append(text); },
            [this](const std::string& text) { err.append(text); }};
}

InstalledCollector::InstalledCollector()
    : stateDirectory(madeDirectory(directory.entry("state"))),
      control(stateDirectory + "/control") {
    replaceBy("exec '" KOLVAN_TEST_CHILD "' collector '" + stateDirectory + "' -- \"$@\"\n");
}

void InstalledCollector::replaceBy(const std::string& script) {
    (void)directory.write("target/package/bin/kolvan-trcap", "#!/bin/sh\n" + script);
    setRunnable(true);
}

void InstalledCollector::setRunnable(bool runnable) {
    if (::chmod(executable().c_str(), runnable ? 0755 : 0644) != 0) {
        throw std::runtime_error("cannot change the mode of the collector");
    }
}

void InstalledCollector::setExitCode(int code) {
    (void)directory.write("state/exit-code", std::to_string(code));
}

std::vector<Arguments> InstalledCollector::runs() const {
    std::ifstream log(stateDirectory + "/runs.log");
    std::vector<Arguments> all;
    Arguments current;
    for (std::string line; std::getline(log, line);) {
        if (line.empty()) {
            all.push_back(std::exchange(current, {}));
        } else {
            current.push_back(line);
        }
    }
    return all;
}

StagedCollector::StagedCollector(std::string installDirectory, Run playedRun)
    : Collector(std::move(installDirectory)), run(std::move(playedRun)) {}

int StagedCollector::execute(const Arguments& args, OperationMessenger& messenger) {
    {
        const std::lock_guard lock(runsMutex);
        begun.push_back(args);
    }
    return run(args, messenger);
}

std::vector<Arguments> StagedCollector::runs() const {
    const std::lock_guard lock(runsMutex);
    return begun;
}

bool isCollection(const Arguments& arguments) {
    return !arguments.empty() && arguments[0] == "--option-file";
}

bool isAsleep(pid_t thread) {
    // A thread that is about to go on shows another call, or none, at one of many looks.
    constexpr int kLooks = 50;
    const std::string first = systemCallOf(thread);
    for (int look = 0; look < kLooks; ++look) {
        if (first.empty() || first == "running" || systemCallOf(thread) != first) {
            return false;
        }
        ::sched_yield();
    }
    return true;
}

std::string errorOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error was thrown";
}

}  // namespace kolvan::test
