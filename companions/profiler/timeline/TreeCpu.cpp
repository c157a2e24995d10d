#include "companions/profiler/timeline/TreeCpu.h"

#include "companions/profiler/base/WholeFile.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include <time.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

namespace fs = std::filesystem;

std::string directoryOf(pid_t process) {
    return "/proc/" + std::to_string(process);
}

std::vector<pid_t> childrenOf(pid_t process) {
    std::vector<pid_t> children;
    std::error_code error;
    for (fs::directory_iterator thread(directoryOf(process) + "/task", error), end;
         !error && thread != end; thread.increment(error)) {
        std::ifstream file(thread->path() / "children");
        std::copy(std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>(),
                  std::back_inserter(children));
    }
    return children;
}

std::string statOf(pid_t process) {
    return wholeFile(directoryOf(process) + "/stat");
}

/// All threads of a process, also those that have ended; 0 for a process that is no more.
std::uint64_t ownNanoseconds(pid_t process) {
    clockid_t clock{};
    timespec time{};
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace

std::uint64_t waitedChildrenTicks(std::string_view text) {
    // proc_pid_stat(5): behind the name in brackets, which may hold anything, come the state (3)
    // and numbers: utime (14), stime, cutime, cstime (17).
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string_view::npos) {
        return 0;
    }
    unsigned long long user = 0;
    unsigned long long system = 0;
    const std::string rest(text.substr(nameEnd + 1));
    const int count =
        std::sscanf(rest.c_str(), " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %llu %llu",
                    &user, &system);
    return count == 2 ? user + system : 0;
}

TreeCpu::TreeCpu(pid_t rootProcess) : processes{rootProcess} {
    lookForChildren();
}

void TreeCpu::lookForChildren() {
    std::vector<pid_t> found(processes.begin(), processes.end());
    for (std::size_t i = 0; i < found.size(); ++i) {
        for (const pid_t child : childrenOf(found[i])) {
            if (processes.insert(child).second) {
                found.push_back(child);
            }
        }
    }
}

std::uint64_t TreeCpu::nanoseconds() {
    static const auto kTick = 1'000'000'000ULL / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    std::uint64_t sum = 0;
    for (auto process = processes.begin(); process != processes.end();) {
        const std::string stat = statOf(*process);
        sum += ownNanoseconds(*process) + waitedChildrenTicks(stat) * kTick;
        process = stat.empty() ? processes.erase(process) : std::next(process);
    }
    // What a process took that ended without being waited for is missing from now on.
    most = std::max(most, sum);
    return most;
}

}  // namespace kolvan::profiler
