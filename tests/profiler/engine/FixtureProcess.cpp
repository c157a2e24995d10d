#include "tests/profiler/engine/FixtureProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::FileDescriptor;

std::pair<FileDescriptor, FileDescriptor> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::string directoryOf(pid_t process, pid_t thread) {
    return "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread);
}

}  // namespace

FixtureProcess::FixtureProcess(const std::vector<std::string>& arguments) {
    auto [childInput, ownInput] = makePipe();
    auto [ownOutput, childOutput] = makePipe();
    std::vector<std::string> copies = arguments;
    copies.insert(copies.begin(), KOLVAN_ENGINE_FIXTURE);
    std::vector<char*> pointers;
    for (std::string& copy : copies) {
        pointers.push_back(copy.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)::posix_spawn_file_actions_init(&actions);  // these fail for lack of memory only
    (void)::posix_spawn_file_actions_adddup2(&actions, childInput.get(), STDIN_FILENO);
    (void)::posix_spawn_file_actions_adddup2(&actions, childOutput.get(), STDOUT_FILENO);
    const int error =
        ::posix_spawn(&child, pointers.front(), &actions, nullptr, pointers.data(), environ);
    (void)::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), copies.front());
    }
    input = std::move(ownInput);
    output = std::move(ownOutput);
    (void)childOutput.close();  // so that the child's end is seen
    if (readLine() != "ready") {
        throw std::runtime_error("The fixture is not ready.");
    }
}

FixtureProcess::~FixtureProcess() {
    if (child > 0) {
        (void)::kill(child, SIGKILL);
        (void)wait();
    }
}

void FixtureProcess::say(const std::string& line) {
    const std::string text = line + "\n";
    if (::write(input.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
}

bool FixtureProcess::hasLine() const {
    pollfd entry{output.get(), POLLIN, 0};
    return pending.find('\n') != std::string::npos || ::poll(&entry, 1, 0) > 0;
}

std::string FixtureProcess::readLine() {
    constexpr int kPatience = 60'000;
    for (;;) {
        const std::size_t end = pending.find('\n');
        if (end != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            return line;
        }
        std::array<char, 512> bytes{};
        pollfd entry{output.get(), POLLIN, 0};
        const int ready = ::poll(&entry, 1, kPatience);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        const ssize_t count = ready > 0 ? ::read(output.get(), bytes.data(), bytes.size()) : 0;
        if (count <= 0) {
            throw std::runtime_error("The fixture has ended, or says nothing.");
        }
        pending.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

std::uint64_t FixtureProcess::ask(const std::string& line) {
    say(line);
    const std::string answer = readLine();
    return std::stoull(answer.substr(answer.find(' ') + 1));
}

void FixtureProcess::closeInput() {
    (void)input.close();
}

int FixtureProcess::wait() {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = ::waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    child = -1;
    return status;
}

char stateOf(pid_t process, pid_t thread) {
    std::ifstream file(directoryOf(process, thread) + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    const std::size_t nameEnd = text.rfind(')');
    return nameEnd == std::string::npos ? '\0' : text.at(nameEnd + 2);
}

pid_t tracerOf(pid_t process, pid_t thread) {
    std::ifstream file(directoryOf(process, thread) + "/status");
    for (std::string line; std::getline(file, line);) {
        pid_t tracer = 0;
        if (std::sscanf(line.c_str(), "TracerPid: %d", &tracer) == 1) {
            return tracer;
        }
    }
    return 0;
}

}  // namespace kolvan::test
