#include "companions/profiler/engine/Tasks.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
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

}  // namespace

std::vector<pid_t> threadsOf(pid_t process) {
    return numbersIn("/proc/" + std::to_string(process) + "/task");
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
    std::ifstream file("/proc/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(file, line);) {
        pid_t process = 0;
        if (std::sscanf(line.c_str(), "Tgid: %d", &process) == 1) {
            return process;
        }
    }
    return 0;
}

std::string nameOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/comm");
    std::string name;
    std::getline(file, name);
    return name;
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
    mapping.path = line.substr(static_cast<std::size_t>(pathAt));
    return true;
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
