#include "tests/profiler/engine/EngineInChild.h"

#include "companions/profiler/engine/PtraceEngine.h"
#include "tests/profiler/engine/RecordedEvents.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::FileDescriptor;

constexpr int kOrders = 100;  // above what a test has open
constexpr int kAnswers = 101;

bool readByte(int descriptor) {
    char byte = 0;
    return ::read(descriptor, &byte, 1) == 1;
}

void writeByte(int descriptor) {
    if (::write(descriptor, "", 1) != 1) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
}

void watch(pid_t target, int orders, int answers) {
    RecordedEvents events;
    profiler::PtraceEngine engine({});
    engine.attach(target, events);
    writeByte(answers);
    pollfd entry{orders, POLLIN, 0};
    while (::poll(&entry, 1, 1) <= 0) {
        engine.deliver(events);
    }
    (void)readByte(orders);
    engine.finish(events);
    writeByte(answers);
    (void)readByte(orders);  // the end: it lives on, so that only `finish` can have let go
}

}  // namespace

EngineInChild::EngineInChild(pid_t target) {
    std::array<int, 2> orders{};
    std::array<int, 2> answers{};
    if (::pipe2(orders.data(), O_CLOEXEC) != 0 || ::pipe2(answers.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    toChild = FileDescriptor(orders[1]);
    fromChild = FileDescriptor(answers[0]);
    FileDescriptor childReads(orders[0]);
    FileDescriptor childWrites(answers[1]);
    child = ::fork();
    if (child == 0) {
        // What else this process has open would keep its other ends from seeing an end.
        (void)::dup2(childReads.get(), kOrders);
        (void)::dup2(childWrites.get(), kAnswers);
        (void)::close_range(3, kOrders - 1, 0);
        (void)::close_range(kAnswers + 1, ~0U, 0);
        try {
            watch(target, kOrders, kAnswers);
        } catch (const std::exception&) {
            ::_exit(1);  // whoever waits for an answer sees it
        }
        ::_exit(0);
    }
    (void)childWrites.close();
    if (child < 0 || !readByte(fromChild.get())) {
        throw std::runtime_error("The engine cannot be attached.");
    }
}

EngineInChild::~EngineInChild() {
    kill();
}

void EngineInChild::kill() {
    if (child > 0) {
        (void)::kill(child, SIGKILL);
        (void)::waitpid(child, nullptr, 0);
        child = -1;
    }
}

void EngineInChild::finish() {
    writeByte(toChild.get());
    if (!readByte(fromChild.get())) {
        throw std::runtime_error("The engine has not finished.");
    }
}

}  // namespace kolvan::test
