#include "companions/profiler/engine/Tasks.h"

#include "companions/profiler/base/WholeFile.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string_view>
#include <system_error>

#include <sys/sysmacros.h>

namespace kolvan::profiler {

namespace {

namespace fs = std::filesystem;

/// Numbers that are names of entries in a directory of procfs.
std::vector<pid_t> numbersIn(const std::string& directory) {
    std::vector<pid_t> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        pid_t number = 0;
        const auto [last, failure] =
            std::from_chars(name.data(), name.data() + name.size(), number);
        if (failure == std::errc() && last == name.data() + name.size()) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

/// What follows a key in the status of a thread; empty when it has ended.
std::string statusOf(pid_t thread, const std::string& key) {
    std::ifstream file("/proc/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(file, line);) {
        const std::size_t value = line.find_first_not_of(" \t", key.size());
        if (line.starts_with(key) && value != std::string::npos) {
            return line.substr(value);
        }
    }
    return "";
}

pid_t numberOf(const std::string& text) {
    pid_t number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number);  // else it stays 0
    return number;
}

/// The system writes a line feed in a path as "\012", so that a mapping stays a line.
std::string withLineFeeds(std::string path) {
    constexpr std::string_view kEscaped = "\\012";
    for (std::size_t at = path.find(kEscaped); at != std::string::npos;
         at = path.find(kEscaped, at + 1)) {
        path.replace(at, kEscaped.size(), "\n");
    }
    return path;
}

}  // namespace

std::vector<pid_t> threadsOf(pid_t process) {
    return numbersIn("/proc/" + std::to_string(process) + "/task");
}

std::vector<pid_t> allProcesses() {
    std::vector<pid_t> processes = numbersIn("/proc");
    std::sort(processes.begin(), processes.end());
    return processes;
}

std::vector<pid_t> processesBelow(pid_t process) {
    std::multimap<pid_t, pid_t> children;
    for (const pid_t each : numbersIn("/proc")) {
        children.emplace(parentOf(each), each);
    }
    std::vector<pid_t> found{process};
    for (std::size_t i = 0; i < found.size(); ++i) {
        const auto [begin, end] = children.equal_range(found[i]);
        std::transform(begin, end, std::back_inserter(found),
                       [](const auto& entry) { return entry.second; });
    }
    return found;
}

pid_t parentOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    const std::size_t nameEnd = text.rfind(')');  // a name may hold anything, brackets too
    pid_t parent = 0;
    char state = 0;
    const bool found = nameEnd != std::string::npos &&
                       std::sscanf(text.c_str() + nameEnd + 1, " %c %d", &state, &parent) == 2;
    return found ? parent : 0;
}

pid_t processOfThread(pid_t thread) {
    return numberOf(statusOf(thread, "Tgid:"));
}

pid_t tracerOf(pid_t thread) {
    return numberOf(statusOf(thread, "TracerPid:"));
}

bool hasEnded(pid_t thread) {
    const std::string state = statusOf(thread, "State:");
    return state.empty() || state.front() == 'Z' || state.front() == 'X';
}

std::string nameOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/comm");
    std::string name;
    std::getline(file, name, '\0');  // it may hold line feeds of its own
    if (name.ends_with('\n')) {
        name.pop_back();
    }
    return name;
}

std::uint64_t processorTimeOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/schedstat");
    std::uint64_t nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds;
}

bool parseMapping(const std::string& line, CodeMapping& mapping) {
    char permissions[5] = {};
    unsigned major = 0;
    unsigned minor = 0;
    int pathAt = 0;
    // proc_pid_maps(5): address perms offset dev inode path
    const int fields =
        std::sscanf(line.c_str(), "%lx-%lx %4s %lx %x:%x %lu %n", &mapping.begin, &mapping.end,
                    permissions, &mapping.fileOffset, &major, &minor, &mapping.inode, &pathAt);
    if (fields != 7 || permissions[2] != 'x') {
        return false;
    }
    mapping.device = ::makedev(major, minor);
    mapping.path = withLineFeeds(line.substr(static_cast<std::size_t>(pathAt)));
    if (mapping.path.empty()) {
        mapping.path = "//anon";  // as the kernel's own records call it
    }
    return true;
}

std::string commandLineOf(pid_t process) {
    std::string text = wholeFile("/proc/" + std::to_string(process) + "/cmdline");
    text.resize(text.find_last_not_of('\0') + 1);  // npos + 1 is 0
    std::replace(text.begin(), text.end(), '\0', ' ');
    return text.empty() ? nameOf(process, process) : text;
}

std::vector<CodeMapping> codeMappingsOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/maps");
    std::vector<CodeMapping> mappings;
    for (std::string line; std::getline(file, line);) {
        CodeMapping mapping;
        mapping.process = process;
        if (parseMapping(line, mapping)) {
            mappings.push_back(mapping);
        }
    }
    return mappings;
}

}  // namespace kolvan::profiler
