#include "companions/profiler/machine/ProcessList.h"

#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <utility>

#include <unistd.h>

namespace kolvan::profiler {

namespace {

using Clock = std::chrono::steady_clock;

/// Processor time of a process, all its threads together, those that have ended too.
std::optional<std::int64_t> cpuNanosecondsOf(pid_t process) {
    clockid_t clock = 0;
    timespec time{};
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
        return std::nullopt;
    }
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::map<pid_t, std::int64_t> cpuOfAll() {
    std::map<pid_t, std::int64_t> all;
    for (const pid_t process : allProcesses()) {
        if (const auto cpu = cpuNanosecondsOf(process)) {
            all.emplace(process, *cpu);
        }
    }
    return all;
}

/// What /proc/PID/status tells of it.
struct Status {
    uid_t user = 0;  // the effective one
    std::size_t threads = 0;
    bool hasMemory = false;  // threads of the kernel, and what has ended, have none
};

Status statusOf(pid_t process) {
    Status status;
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);) {
        (void)std::sscanf(line.c_str(), "Uid: %*u %u", &status.user);  // other lines are others
        (void)std::sscanf(line.c_str(), "Threads: %zu", &status.threads);
        status.hasMemory = status.hasMemory || line.starts_with("VmSize:");
    }
    return status;
}

/// Asks for each name once: behind it may be a directory service.
class UserNames {
public:
    const std::string& of(uid_t user) {
        const auto known = names.find(user);
        return known != names.end() ? known->second
                                    : names.emplace(user, userName(user)).first->second;
    }

private:
    std::map<uid_t, std::string> names;
};

void sleepFor(std::chrono::milliseconds time) {
    timespec left{time.count() / 1000, time.count() % 1000 * 1'000'000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

std::vector<ProcessEntry> listProcesses(std::chrono::milliseconds window) {
    const Machine machine = readSettings();
    UserNames names;
    const auto begin = Clock::now();
    const auto before = cpuOfAll();
    sleepFor(window);
    const auto after = cpuOfAll();
    const auto passed =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
    std::vector<ProcessEntry> entries;
    for (const auto& [process, cpu] : after) {
        const Status status = statusOf(process);
        const Trial trial = tryProcess(process);
        if (!status.hasMemory || process == ::getpid() || trial.samplingError == ESRCH ||
            trial.mappingsError == ESRCH || trial.mappingsError == ENOENT) {
            continue;
        }
        const auto former = before.find(process);
        const std::int64_t used = cpu - (former == before.end() ? 0 : former->second);
        ProcessEntry entry;
        entry.pid = process;
        entry.user = names.of(status.user);
        entry.command = commandLineOf(process);
        entry.cpu = 100.0 * static_cast<double>(std::max<std::int64_t>(used, 0)) /
                    static_cast<double>(passed);
        entry.threads = status.threads;
        entry.access = judge(trial, machine);
        entries.push_back(std::move(entry));
    }
    // What is shown as the same is the same: idle processes stay in the order of their numbers.
    const auto rank = [](const ProcessEntry& entry) {
        return std::pair(entry.access.engine != Access::Engine::None, std::lround(entry.cpu * 10));
    };
    std::stable_sort(entries.begin(), entries.end(),
                     [&](const auto& one, const auto& other) { return rank(one) > rank(other); });
    return entries;
}

}  // namespace kolvan::profiler
