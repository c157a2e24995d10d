#include "tests/support/ThreadStates.h"

#include "tests/support/Gate.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace kolvan::test {

namespace {

std::string threadDirectory(pid_t kernelThread) {
    return "/proc/self/task/" + std::to_string(kernelThread);
}

}  // namespace

void lookUntil(const std::function<bool()>& condition, const std::string& what) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error(what);
        }
        std::this_thread::yield();
    }
}

bool threadExists(pid_t kernelThread) {
    return std::filesystem::exists(threadDirectory(kernelThread));
}

bool isSleeping(pid_t kernelThread) {
    std::ifstream file(threadDirectory(kernelThread) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t nameEnd = line.rfind(") ");
    return nameEnd != std::string::npos && line.compare(nameEnd + 2, 1, "S") == 0;
}

void waitUntilThreadEnds(pid_t kernelThread) {
    lookUntil([&] { return !threadExists(kernelThread); }, "a thread does not end");
}

void waitUntilThreadSleeps(pid_t kernelThread) {
    lookUntil([&] { return isSleeping(kernelThread); }, "a thread does not wait");
}

}  // namespace kolvan::test
