#include "tests/profiler/support/Program.h"

#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::FileDescriptor;
using Clock = std::chrono::steady_clock;

int count(const std::string& text, const std::string& part) {
    int found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++found;
    }
    return found;
}

}  // namespace

Pipe::Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    readEnd = FileDescriptor(ends[0]);
    writeEnd = FileDescriptor(ends[1]);
}

Program::Program(const Arguments& arguments, const char* executable, std::chrono::seconds patience)
    : deadline(Clock::now() + patience) {
    Arguments all = {executable};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& one : all) {
        pointers.push_back(one.data());
    }
    pointers.push_back(nullptr);
    std::array<Pipe, 3> pipes;
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    for (int index = 0; index < 3; ++index) {
        const auto place = static_cast<std::size_t>(index);
        // Above what is used, so that no end is overwritten before it was copied.
        const int high = ::fcntl(pipes[place].writeEnd.get(), F_DUPFD_CLOEXEC, 20);
        pipes[place].writeEnd = FileDescriptor(high);
        posix_spawn_file_actions_adddup2(&actions, high, index + 1);
    }
    const int error =
        ::posix_spawnp(&child, executable, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error(std::string("cannot start ") + executable);
    }
    for (std::size_t index = 0; index < 3; ++index) {
        readEnds[index] = std::move(pipes[index].readEnd);
    }
}

Program::~Program() {
    if (!exitCode) {
        (void)::kill(child, SIGKILL);
        (void)::waitpid(child, nullptr, 0);
    }
}

void Program::signal(int number) const {
    if (::kill(child, number) != 0) {
        throw std::runtime_error("kill");
    }
}

void Program::waitFor(std::size_t stream, const std::string& text, int times) {
    while (count(texts[stream - 1], text) < times) {
        if (!readSome()) {
            throw std::runtime_error("ended without '" + text + "': " + texts[0] + texts[1] +
                                     texts[2]);
        }
    }
}

int Program::finish() {
    while (readSome()) {
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) {
        throw std::runtime_error("waitpid");
    }
    exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return *exitCode;
}

bool Program::readSome() {
    std::array<pollfd, 3> entries{};
    for (std::size_t index = 0; index < 3; ++index) {
        entries[index] = {readEnds[index].get(), POLLIN, 0};
    }
    if (!readEnds[0] && !readEnds[1] && !readEnds[2]) {
        return false;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 ||
        ::poll(entries.data(), entries.size(), static_cast<int>(left.count())) <= 0) {
        throw std::runtime_error("no end in sight: " + texts[0] + texts[1] + texts[2]);
    }
    for (std::size_t index = 0; index < 3; ++index) {
        if (entries[index].revents == 0) {
            continue;
        }
        std::array<char, 4096> buffer{};
        const ssize_t length = ::read(readEnds[index].get(), buffer.data(), buffer.size());
        if (length <= 0) {
            readEnds[index] = FileDescriptor();
        } else {
            texts[index].append(buffer.data(), static_cast<std::size_t>(length));
        }
    }
    return true;
}

}  // namespace kolvan::test
