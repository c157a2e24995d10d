#include "companions/profiler/timeline/ProcessProbe.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::size_t kLargestFile =
    std::size_t{16} * 1024;  // "status" of a large machine needs about 2 KiB

constexpr std::size_t kThreadsAtOnce = 200;  // some milliseconds

struct DirectoryClose {
    void operator()(DIR* handle) const noexcept { (void)::closedir(handle); }
};
using DirectoryHandle = std::unique_ptr<DIR, DirectoryClose>;

std::optional<std::uint64_t> leadingNumber(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

/// The field `index` of `text`, counted from 0, fields being separated by single blanks.
std::string_view field(std::string_view text, int index) {
    for (; index > 0; --index) {
        text.remove_prefix(std::min(text.find(' '), text.size() - 1) + 1);
        if (text.empty()) {
            return {};
        }
    }
    return text.substr(0, text.find(' '));
}

bool hasEnded(const ThreadReading& thread) {
    return thread.state == 'Z' || thread.state == 'X';
}

}  // namespace

bool parseStat(std::string_view text, long ticksPerSecond, ThreadReading& reading) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open ||
        close + 2 >= text.size()) {
        return false;
    }
    const std::string_view rest = text.substr(close + 2);
    const auto user = leadingNumber(field(rest, 11));
    const auto system = leadingNumber(field(rest, 12));
    if (!user || !system || ticksPerSecond <= 0) {
        return false;
    }
    reading.name = text.substr(open + 1, close - open - 1);
    reading.state = rest.front();
    reading.cpuNanoseconds =
        (*user + *system) * (kNanosecondsPerSecond / static_cast<std::uint64_t>(ticksPerSecond));
    return true;
}

std::optional<std::uint64_t> findValue(std::string_view text, std::string_view key) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.starts_with(key) && line.substr(key.size()).starts_with(':')) {
            return leadingNumber(line.substr(key.size() + 1));
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return std::nullopt;
}

ProcessProbe::ProcessProbe(pid_t pid) : target(pid), ticksPerSecond(::sysconf(_SC_CLK_TCK)) {
    const std::string path = "/proc/" + std::to_string(pid);
    const std::string subject = "process " + std::to_string(pid);
    directory = FileDescriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        throw Failure(ExitCode::NoTarget, errno == ENOENT
                                              ? "there is no " + subject
                                              : "cannot read " + subject + ": " + errorText(errno));
    }
    const auto status = readFile("status");
    const auto group = status ? findValue(*status, "Tgid") : std::nullopt;
    if (group && *group != static_cast<std::uint64_t>(pid)) {
        throw Failure(ExitCode::NoTarget, std::to_string(pid) + " is a thread of process " +
                                              std::to_string(*group) + ", not a process");
    }
}

std::optional<ProcessReading> ProcessProbe::read(const std::function<void()>& meanwhile) {
    ProcessReading reading;
    const auto cpu = cpuNanoseconds();
    const DirectoryHandle tasks([this] {
        const int descriptor =
            ::openat(directory.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* const handle = descriptor < 0 ? nullptr : ::fdopendir(descriptor);
        if (handle == nullptr && descriptor >= 0) {
            (void)::close(descriptor);  // nothing was written through it
        }
        return handle;
    }());
    if (!cpu || !tasks) {
        return std::nullopt;
    }
    reading.cpuNanoseconds = *cpu;
    // Nobody else reads this stream, and others are no concern of it.
    while (const dirent* entry = ::readdir(tasks.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (entry->d_name[0] == '.') {
            continue;
        }
        if (auto thread = readThread(entry->d_name)) {
            reading.threads.push_back(std::move(*thread));
        }
        if (reading.threads.size() % kThreadsAtOnce == 0) {
            meanwhile();
        }
    }
    if (std::all_of(reading.threads.begin(), reading.threads.end(), hasEnded)) {
        return std::nullopt;
    }
    if (const auto status = readFile("status")) {
        const auto resident = findValue(*status, "VmRSS");
        const auto size = findValue(*status, "VmSize");
        if (resident && size) {
            reading.memory = MemoryReading{*resident, *size};
        }
    }
    reading.io = readIo();
    return reading;
}

std::optional<std::uint64_t> ProcessProbe::cpuNanoseconds() const {
    clockid_t clock{};
    timespec time{};
    // This clock is finer than "stat", which counts in steps of 10 ms, and counts ended threads
    // too.
    if (::clock_getcpuclockid(target, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(time.tv_sec) * kNanosecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec);
}

std::optional<std::string_view> ProcessProbe::readFile(const std::string& name) {
    const FileDescriptor file(::openat(directory.get(), name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        return std::nullopt;
    }
    buffer.resize(kLargestFile);
    std::size_t length = 0;
    while (length < buffer.size()) {
        const ssize_t count = ::read(file.get(), buffer.data() + length, buffer.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return std::nullopt;  // the process or thread has ended in between
        }
        if (count == 0) {
            break;
        }
        length += static_cast<std::size_t>(count);
    }
    return std::string_view(buffer).substr(0, length);
}

std::optional<ThreadReading> ProcessProbe::readThread(const std::string& id) {
    ThreadReading reading;
    const auto number = leadingNumber(id);
    const std::string place = "task/" + id;
    const auto stat = readFile(place + "/stat");
    if (!number || !stat || !parseStat(*stat, ticksPerSecond, reading)) {
        return std::nullopt;
    }
    reading.id = static_cast<pid_t>(*number);
    // The scheduler's own count is finer than clock ticks; not every kernel has it.
    if (const auto scheduled = readFile(place + "/schedstat")) {
        reading.cpuNanoseconds = leadingNumber(*scheduled).value_or(reading.cpuNanoseconds);
    }
    if (const auto status = readFile(place + "/status")) {
        reading.voluntarySwitches = findValue(*status, "voluntary_ctxt_switches").value_or(0);
        reading.involuntarySwitches = findValue(*status, "nonvoluntary_ctxt_switches").value_or(0);
    }
    return reading;
}

std::optional<IoReading> ProcessProbe::readIo() {
    const auto text = readFile("io");
    if (!text || text->empty()) {
        return std::nullopt;
    }
    return IoReading{findValue(*text, "rchar").value_or(0), findValue(*text, "wchar").value_or(0),
                     findValue(*text, "read_bytes").value_or(0),
                     findValue(*text, "write_bytes").value_or(0)};
}

}  // namespace kolvan::profiler
