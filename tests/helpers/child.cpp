// A child process for tests. Its arguments are a list of actions, carried out in order; the first
// argument that begins with "--" ends the list, and what follows it is kept for "collector" and
// "report". The exit status is 0 when the list ends and 97 when it makes no sense.
//
//   text FD TEXT             writes TEXT to descriptor FD
//   flood FDS CHUNK BYTES    writes BYTES of each descriptor's pattern (Pattern.h) in pieces of
//                            CHUNK bytes; FDS is a list like 1,2,3, written all at once
//   report FD WHAT           writes to FD, one entry a line:
//     arguments              argument 1 and all that follow it
//     program                argument 0
//     descriptors            every open descriptor: number, "r", "w" or "rw", what it is
//     signals                blocked, ignored and caught signals as the kernel tells them
//     directory              the working directory
//     group                  process group and session
//     limit                  soft and hard limit of open descriptors
//     environment            every entry of the environment
//     input                  the number of bytes that descriptor 0 gives before its end
//     pid                    process number
//   block SIGNAL             blocks a signal
//   ignore SIGNAL            ignores a signal
//   await-signal SIGNAL      waits for a signal that was blocked before
//   await FIFO               waits until the FIFO can be read, is closed or is gone
//   grandchild FIFO MODE     forks a process that keeps every descriptor until then; MODE is
//                            "hold", or "flood:FDS" to write patterns to them all the time
//   stop                     stops itself (SIGSTOP)
//   stay                     stays until it is killed
//   die SIGNAL               dies by a signal, without a core file
//   exit CODE                ends at once
//   collector DIRECTORY      behaves as a collector with the arguments behind the "--": appends
//                            them to DIRECTORY/runs.log, one a line with an empty line behind, then
//     --option-file F ...    writes its process number as a line to the feedback descriptor and
//                            waits for "cancel" or "stop" on the FIFO DIRECTORY/control; ends with
//                            the number in DIRECTORY/exit-code, 0 where there is none
//     -r D --command C ...   writes "command C" as a line to its three channels, passes C to
//                            DIRECTORY/control and ends with 0; "exit-N" ends with N instead
//     anything else          is a list of actions
//
// What waits here ends by itself when the parent has gone, so that no failing test leaves a
// process behind.

#include "Pattern.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

constexpr int kNonsense = 97;
constexpr int kGuardInterval = 100;  // milliseconds between two looks at the parent

const pid_t firstParent = ::getppid();

void endWithParent() {
    if (::getppid() != firstParent) {
        ::_exit(kNonsense);
    }
}

void writeAll(int descriptor, const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(descriptor, data, length);
        if (written >= 0) {
            data += written;
            length -= static_cast<std::size_t>(written);
        } else if (errno != EINTR) {
            ::_exit(kNonsense);
        }
    }
}

void writeAll(int descriptor, const std::string& text) {
    writeAll(descriptor, text.data(), text.size());
}

std::vector<int> descriptorList(const std::string& text) {
    std::vector<int> descriptors;
    std::istringstream stream(text);
    for (std::string number; std::getline(stream, number, ',');) {
        descriptors.push_back(std::stoi(number));
    }
    return descriptors;
}

void flood(int descriptor, std::size_t chunk, std::uint64_t bytes) {
    std::vector<char> piece(chunk);
    for (std::uint64_t offset = 0; offset < bytes; offset += chunk) {
        const std::size_t length =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk, bytes - offset));
        for (std::size_t i = 0; i < length; ++i) {
            piece[i] = kolvan::test::patternByte(descriptor, offset + i);
        }
        writeAll(descriptor, piece.data(), length);
    }
}

void floodAll(const std::vector<int>& descriptors, std::size_t chunk, std::uint64_t bytes) {
    std::vector<std::thread> threads;
    for (const int descriptor : descriptors) {
        threads.emplace_back([=] { flood(descriptor, chunk, bytes); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::string joinedLines(const Words& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + '\n';
    }
    return text;
}

std::string accessMode(int descriptor) {
    switch (::fcntl(descriptor, F_GETFL) & O_ACCMODE) {
        case O_RDONLY:
            return "r";
        case O_WRONLY:
            return "w";
        default:
            return "rw";
    }
}

std::string reportDescriptors() {
    DIR* directory = ::opendir("/proc/self/fd");
    std::vector<int> numbers;
    while (const dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(directory)) {
            numbers.push_back(std::atoi(entry->d_name));
        }
    }
    ::closedir(directory);
    std::sort(numbers.begin(), numbers.end());
    std::string text;
    for (const int number : numbers) {
        std::array<char, 4096> target{};
        const std::string link = "/proc/self/fd/" + std::to_string(number);
        const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
        text += std::to_string(number) + ' ' + accessMode(number) + ' ' +
                std::string(target.data(), static_cast<std::size_t>(std::max<ssize_t>(0, length))) +
                '\n';
    }
    return text;
}

std::string reportSignals() {
    std::ifstream status("/proc/self/status");
    std::string text;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:") || line.starts_with("SigIgn:") ||
            line.starts_with("SigCgt:")) {
            text += line + '\n';
        }
    }
    return text;
}

std::string reportLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return std::to_string(limit.rlim_cur) + '\n' + std::to_string(limit.rlim_max) + '\n';
}

std::string reportEnvironment() {
    std::string text;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        text += *entry + std::string("\n");
    }
    return text;
}

std::string reportInput() {
    std::array<char, 4096> buffer;
    std::uint64_t total = 0;
    for (ssize_t got = 0; (got = ::read(0, buffer.data(), buffer.size())) != 0;) {
        if (got < 0) {
            return "unreadable\n";
        }
        total += static_cast<std::uint64_t>(got);
    }
    return std::to_string(total) + '\n';
}

std::string report(const std::string& what, const Words& all) {
    if (what == "arguments") {
        return joinedLines(Words(all.begin() + 1, all.end()));
    }
    if (what == "program") {
        return all[0] + '\n';
    }
    if (what == "descriptors") {
        return reportDescriptors();
    }
    if (what == "signals") {
        return reportSignals();
    }
    if (what == "directory") {
        std::array<char, 4096> path{};
        return std::string(::getcwd(path.data(), path.size())) + '\n';
    }
    if (what == "group") {
        return std::to_string(::getpgrp()) + '\n' + std::to_string(::getsid(0)) + '\n';
    }
    if (what == "limit") {
        return reportLimit();
    }
    if (what == "environment") {
        return reportEnvironment();
    }
    if (what == "input") {
        return reportInput();
    }
    if (what == "pid") {
        return std::to_string(::getpid()) + '\n';
    }
    throw std::invalid_argument(what);
}

sigset_t only(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

void awaitSignal(int signal) {
    const sigset_t set = only(signal);
    const timespec interval{0, kGuardInterval * 1000000L};
    while (::sigtimedwait(&set, nullptr, &interval) < 0) {
        endWithParent();
    }
}

void stay() {
    for (;;) {
        (void)::poll(nullptr, 0, kGuardInterval);
        endWithParent();
    }
}

[[noreturn]] void die(int signal) {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::signal(signal, SIG_DFL);
    const sigset_t set = only(signal);
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signal);
    ::_exit(kNonsense);
}

bool isReleased(int fifo) {
    pollfd entry{fifo, POLLIN, 0};
    return ::poll(&entry, 1, kGuardInterval) > 0;
}

/// A FIFO that is gone counts as released: its owner removes it before closing it.
int openFifo(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

void await(const std::string& path) {
    const int fifo = openFifo(path);
    while (fifo >= 0 && !isReleased(fifo)) {
        endWithParent();
    }
    if (fifo >= 0) {
        ::close(fifo);
    }
}

void runGrandchild(const std::string& path, const std::string& mode) {
    const std::string floodPrefix = "flood:";
    if (::fork() != 0) {
        return;
    }
    // Opened by the grandchild itself: nothing but the leash keeps it, whoever its parent is.
    const int fifo = openFifo(path);
    if (mode.starts_with(floodPrefix)) {
        for (const int descriptor : descriptorList(mode.substr(floodPrefix.size()))) {
            std::thread([=] { flood(descriptor, 4096, UINT64_MAX); }).detach();
        }
    }
    while (fifo >= 0 && !isReleased(fifo)) {
    }
    ::_exit(0);
}

void perform(Words actions, const Words& all, const Words& trailing);

std::string awaitedCommand(int control) {
    std::string received;
    while (received.find('\n') == std::string::npos) {
        std::array<char, 256> buffer;
        if (!isReleased(control)) {
            endWithParent();
            continue;
        }
        const ssize_t got = ::read(control, buffer.data(), buffer.size());
        received.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(0, got)));
    }
    return received.substr(0, received.find('\n'));
}

int feedbackDescriptor(const Words& arguments) {
    const auto option = std::find(arguments.begin(), arguments.end(), "--ui-output-fd");
    return option == arguments.end() ? 2 : std::stoi(*(option + 1));
}

[[noreturn]] void collect(const std::string& directory, const Words& arguments) {
    // Open for writing too, so that the FIFO is never at its end between two commands.
    const int control = ::open((directory + "/control").c_str(), O_RDWR | O_NONBLOCK);
    writeAll(feedbackDescriptor(arguments), std::to_string(::getpid()) + '\n');
    for (std::string command; command != "cancel" && command != "stop";) {
        command = awaitedCommand(control);
    }
    int code = 0;
    std::ifstream(directory + "/exit-code") >> code;
    ::_exit(code);
}

[[noreturn]] void passCommand(const std::string& directory, const Words& arguments) {
    const std::string exitPrefix = "exit-";
    const std::string& command = arguments.at(3);
    for (const int descriptor : {1, 2, feedbackDescriptor(arguments)}) {
        writeAll(descriptor, "command " + command + '\n');
    }
    if (command.starts_with(exitPrefix)) {
        ::_exit(std::stoi(command.substr(exitPrefix.size())));
    }
    const int control = ::open((directory + "/control").c_str(), O_RDWR | O_NONBLOCK);
    writeAll(control, command + '\n');
    ::_exit(0);
}

void behaveAsCollector(const std::string& directory, const Words& all, const Words& arguments) {
    const int log =
        ::open((directory + "/runs.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    writeAll(log, joinedLines(arguments) + '\n');
    ::close(log);
    if (!arguments.empty() && arguments[0] == "--option-file") {
        collect(directory, arguments);
    }
    if (!arguments.empty() && arguments[0] == "-r") {
        passCommand(directory, arguments);
    }
    perform(arguments, all, {});
}

/// Splits the words at the first one that begins with "--"; a bare "--" belongs to neither part.
void split(const Words& words, Words& actions, Words& trailing) {
    const auto end = std::find_if(words.begin(), words.end(),
                                  [](const std::string& word) { return word.starts_with("--"); });
    actions.assign(words.begin(), end);
    trailing.assign(end != words.end() && *end == "--" ? end + 1 : end, words.end());
}

void perform(Words words, const Words& all, const Words& trailing) {
    Words actions;
    Words ignored;
    split(words, actions, ignored);
    std::size_t position = 0;
    const auto next = [&]() -> const std::string& { return actions.at(position++); };
    const auto nextNumber = [&] { return std::stoi(next()); };
    while (position < actions.size()) {
        const std::string action = next();
        if (action == "text") {
            const int descriptor = nextNumber();
            writeAll(descriptor, next());
        } else if (action == "flood") {
            const std::vector<int> descriptors = descriptorList(next());
            const std::size_t chunk = std::stoul(next());
            floodAll(descriptors, chunk, std::stoull(next()));
        } else if (action == "report") {
            const int descriptor = nextNumber();
            writeAll(descriptor, report(next(), all));
        } else if (action == "block") {
            const sigset_t set = only(nextNumber());
            ::sigprocmask(SIG_BLOCK, &set, nullptr);
        } else if (action == "ignore") {
            ::signal(nextNumber(), SIG_IGN);
        } else if (action == "await-signal") {
            awaitSignal(nextNumber());
        } else if (action == "await") {
            await(next());
        } else if (action == "grandchild") {
            const std::string fifo = next();
            runGrandchild(fifo, next());
        } else if (action == "stop") {
            ::raise(SIGSTOP);
        } else if (action == "stay") {
            stay();
        } else if (action == "die") {
            die(nextNumber());
        } else if (action == "exit") {
            ::_exit(nextNumber());
        } else if (action == "collector") {
            behaveAsCollector(next(), all, trailing);
        } else {
            throw std::invalid_argument(action);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Words all(argv, argv + argc);
    Words actions;
    Words trailing;
    split(Words(all.begin() + std::min(argc, 1), all.end()), actions, trailing);
    try {
        perform(actions, all, trailing);
    } catch (const std::exception& problem) {
        (void)std::fprintf(stderr, "kolvan-test-child: %s\n", problem.what());
        return kNonsense;
    }
    return 0;
}
