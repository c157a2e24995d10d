#include "main/InterruptThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
// The handlers below allocate, which is safe on the one thread that they run on and nowhere else.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace cagnt1 {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kDeadline{60};

// A semaphore that a handler may post on any thread.
class Events {
public:
    Events() { ::sem_init(&semaphore, 0, 0); }
    ~Events() { ::sem_destroy(&semaphore); }

    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;

    void post() { ::sem_post(&semaphore); }

    // False when nothing came in a generous time.
    bool wait() {
        timespec deadline{};
        ::clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += kDeadline.count();
        int result = 0;
        while ((result = ::sem_timedwait(&semaphore, &deadline)) != 0 && errno == EINTR) {
        }
        return result == 0;
    }

private:
    sem_t semaphore;
};

// What the handlers of the cases share; one case runs at a time.
struct Handled {
    std::atomic<int> calls = 0;
    std::atomic<pid_t> lastThread = 0;
    std::atomic<int> running = 0;
    std::atomic<int> mostRunning = 0;
    std::atomic<bool> onSeveralThreads = false;
    std::atomic<bool> held = false;  // keeps a handler from returning
    std::atomic<bool> finished = false;
    Events begun;
};

std::optional<Handled> handled;

void countCall(int) {
    const pid_t former = handled->lastThread.exchange(::gettid());
    if (former != 0 && former != ::gettid()) {
        handled->onSeveralThreads = true;
    }
    ++handled->calls;
    handled->begun.post();
}

void holdOn(int) {
    handled->begun.post();
    while (handled->held) {
        std::this_thread::yield();
    }
    handled->finished = true;
}

// Shared by `useLocks` and the threads that it must not interrupt.
std::mutex sharedMutex;
std::vector<std::string> sharedTexts;

void useSharedTexts() {
    const std::lock_guard lock(sharedMutex);
    sharedTexts.emplace_back(100, 'x');
    if (sharedTexts.size() > 100) {
        sharedTexts.clear();
        sharedTexts.shrink_to_fit();
    }
}

void useLocks(int) {
    const int running = ++handled->running;
    handled->mostRunning = std::max(handled->mostRunning.load(), running);
    useSharedTexts();
    countCall(0);
    --handled->running;
}

// Looks again and again until `condition` holds; false when that takes unreasonably long.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

std::set<pid_t> threadsOfThisProcess() {
    std::set<pid_t> threads;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/task")) {
        threads.insert(std::stoi(entry.path().filename()));
    }
    return threads;
}

std::size_t openDescriptors() {
    const fs::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

bool isSleeping(pid_t thread) {
    std::ifstream stream("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(stream, text);
    const std::size_t name = text.rfind(')');
    return name != std::string::npos && text.substr(name, 3) == ") S";
}

// The blocked signals of a thread of this process, one bit each.
unsigned long long blockedSignals(pid_t thread) {
    std::ifstream stream("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind("SigBlk:", 0) == 0) {
            return std::stoull(line.substr(7), nullptr, 16);
        }
    }
    return 0;
}

unsigned long long bitOf(int number) {
    return 1ULL << (number - 1);
}

bool interruptIsPending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGINT) == 1;
}

void interruptThisProcess() {
    ASSERT_EQ(0, ::kill(::getpid(), SIGINT));
}

class InterruptThreadTest : public ::testing::Test {
protected:
    InterruptThreadTest() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signals, &formerMask);
        ::sigaction(SIGINT, nullptr, &formerAction);
        handled.emplace();
        // The thread sanitizer starts one of its own together with the first one of the program.
        std::thread([] {}).join();
    }

    ~InterruptThreadTest() override {
        interrupts.reset();  // before the signal's former action is back
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        const timespec atOnce{};
        while (sigtimedwait(&interrupt, nullptr, &atOnce) > 0) {
        }
        ::sigaction(SIGINT, &formerAction, nullptr);
        pthread_sigmask(SIG_SETMASK, &formerMask, nullptr);
    }

    // Starts the thread and finds out which one it is.
    void start() {
        const std::set<pid_t> before = threadsOfThisProcess();
        interrupts.emplace();
        std::vector<pid_t> started;
        std::ranges::set_difference(threadsOfThisProcess(), before, std::back_inserter(started));
        ASSERT_EQ(1U, started.size());
        parked = started.front();
    }

    std::optional<InterruptThread> interrupts;
    pid_t parked = 0;

private:
    sigset_t formerMask;
    struct sigaction formerAction;
};

TEST_F(InterruptThreadTest, HandlerIsInstalledWithAnEmptyMaskAndNoFlags) {
    installInterruptHandler(countCall);

    struct sigaction action {};
    ::sigaction(SIGINT, nullptr, &action);
    EXPECT_EQ(&countCall, action.sa_handler);
    constexpr int kVisibleFlags = SA_NOCLDSTOP | SA_NOCLDWAIT | SA_NODEFER | SA_ONSTACK |
                                  static_cast<int>(SA_RESETHAND) | SA_RESTART | SA_SIGINFO;
    EXPECT_EQ(0, action.sa_flags & kVisibleFlags);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        EXPECT_NE(1, sigismember(&action.sa_mask, number)) << number;
    }
}

TEST_F(InterruptThreadTest, InterruptStaysPendingWithoutTheThread) {
    installInterruptHandler(countCall);

    interruptThisProcess();

    EXPECT_TRUE(interruptIsPending());
    EXPECT_EQ(0, handled->calls.load());
}

TEST_F(InterruptThreadTest, EarlierInterruptIsDeliveredWhenTheThreadStarts) {
    installInterruptHandler(countCall);
    interruptThisProcess();

    start();

    ASSERT_TRUE(handled->begun.wait());
    EXPECT_EQ(parked, handled->lastThread.load());
    interrupts.reset();
    EXPECT_EQ(1, handled->calls.load());
    EXPECT_FALSE(interruptIsPending());
}

TEST_F(InterruptThreadTest, EveryInterruptIsHandledOnTheParkedThread) {
    installInterruptHandler(countCall);
    start();

    for (int round = 1; round <= 1000; ++round) {
        interruptThisProcess();
        ASSERT_TRUE(handled->begun.wait());
        ASSERT_EQ(round, handled->calls.load());
    }

    EXPECT_EQ(parked, handled->lastThread.load());
    EXPECT_FALSE(handled->onSeveralThreads.load());
}

TEST_F(InterruptThreadTest, InterruptAimedAtTheParkedThreadIsHandledThere) {
    installInterruptHandler(countCall);
    start();

    ASSERT_EQ(0, ::tgkill(::getpid(), parked, SIGINT));

    ASSERT_TRUE(handled->begun.wait());
    EXPECT_EQ(parked, handled->lastThread.load());
    EXPECT_EQ(1, handled->calls.load());
}

TEST_F(InterruptThreadTest, InterruptAimedAtAnotherThreadIsNotHandledThere) {
    installInterruptHandler(countCall);
    start();
    std::latch aimed(1);
    std::atomic<int> pendingThreads = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            aimed.wait();
            pendingThreads += interruptIsPending() ? 1 : 0;
        });
    }

    for (std::thread& thread : threads) {
        ASSERT_EQ(0, ::pthread_kill(thread.native_handle(), SIGINT));
    }
    ASSERT_EQ(0, ::pthread_kill(::pthread_self(), SIGINT));
    aimed.count_down();
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(4, pendingThreads.load());
    EXPECT_TRUE(interruptIsPending());
    interruptThisProcess();
    ASSERT_TRUE(handled->begun.wait());
    EXPECT_EQ(parked, handled->lastThread.load());
    EXPECT_EQ(1, handled->calls.load());
}

TEST_F(InterruptThreadTest, ParkedThreadLetsNothingElseIn) {
    installInterruptHandler(countCall);
    start();
    interruptThisProcess();
    ASSERT_TRUE(handled->begun.wait());

    // It waits with the signal let in; on its way there it may still block it.
    EXPECT_TRUE(eventually([&] { return (blockedSignals(parked) & bitOf(SIGINT)) == 0; }));
    EXPECT_EQ(bitOf(SIGPIPE), blockedSignals(parked) & bitOf(SIGPIPE));
    EXPECT_EQ(bitOf(SIGINT), blockedSignals(::gettid()) & bitOf(SIGINT));
}

TEST_F(InterruptThreadTest, DestructorWaitsForARunningHandler) {
    handled->held = true;
    installInterruptHandler(holdOn);
    start();
    interruptThisProcess();
    ASSERT_TRUE(handled->begun.wait());
    std::atomic<pid_t> destroyer = 0;
    std::atomic<bool> destroyed = false;
    bool finishedAtTheEnd = false;

    std::thread thread([&] {
        destroyer = ::gettid();
        interrupts.reset();
        finishedAtTheEnd = handled->finished;
        destroyed = true;
    });
    EXPECT_TRUE(eventually([&] { return destroyed || (destroyer != 0 && isSleeping(destroyer)); }));
    handled->held = false;
    thread.join();

    EXPECT_TRUE(finishedAtTheEnd);
}

TEST_F(InterruptThreadTest, NothingIsHandledAfterTheDestructor) {
    installInterruptHandler(countCall);
    start();
    interrupts.reset();

    interruptThisProcess();

    EXPECT_TRUE(interruptIsPending());
    EXPECT_EQ(0, handled->calls.load());
}

TEST_F(InterruptThreadTest, ThreadCanBeStartedAgain) {
    installInterruptHandler(countCall);
    start();
    interrupts.reset();
    interruptThisProcess();

    start();

    ASSERT_TRUE(handled->begun.wait());
    EXPECT_EQ(parked, handled->lastThread.load());
}

TEST_F(InterruptThreadTest, StartAndEndLeaveNoThreadAndNoDescriptor) {
    installInterruptHandler(countCall);
    const std::set<pid_t> threads = threadsOfThisProcess();
    const std::size_t descriptors = openDescriptors();

    for (int round = 0; round < 200; ++round) {
        interrupts.emplace();
        interrupts.reset();
    }

    // A thread that has been joined is listed for a moment longer.
    EXPECT_TRUE(eventually([&] { return std::ranges::includes(threads, threadsOfThisProcess()); }));
    EXPECT_EQ(descriptors, openDescriptors());
}

TEST_F(InterruptThreadTest, EndInTheMiddleOfInterruptsIsOrderly) {
    installInterruptHandler(countCall);
    std::atomic<bool> ending = false;
    std::thread sender([&] {
        while (!ending) {
            (void)::kill(::getpid(), SIGINT);
        }
    });

    for (int round = 0; round < 200; ++round) {
        interrupts.emplace();
        ASSERT_TRUE(handled->begun.wait());
        interrupts.reset();
        const int calls = handled->calls;
        std::this_thread::yield();
        EXPECT_EQ(calls, handled->calls.load());
    }
    ending = true;
    sender.join();
}

TEST_F(InterruptThreadTest, HandlerMayLockAndAllocateInAStormOfTenThousand) {
    installInterruptHandler(useLocks);
    start();
    std::atomic<bool> ending = false;
    std::vector<std::thread> workers;
    for (int i = 0; i < 2; ++i) {
        workers.emplace_back([&] {
            while (!ending) {
                useSharedTexts();
            }
        });
    }

    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] {
            for (int sent = 0; sent < 2500; ++sent) {
                (void)::kill(::getpid(), SIGINT);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(eventually([] { return !interruptIsPending(); }));
    const int calls = handled->calls;
    interruptThisProcess();
    while (handled->calls == calls && handled->begun.wait()) {
    }
    EXPECT_LT(calls, handled->calls.load());
    ending = true;
    for (std::thread& worker : workers) {
        worker.join();
    }

    interrupts.reset();
    EXPECT_GE(10'001, handled->calls.load());
    EXPECT_EQ(parked, handled->lastThread.load());
    EXPECT_FALSE(handled->onSeveralThreads.load());
    EXPECT_EQ(1, handled->mostRunning.load());
}

}  // namespace

}  // namespace cagnt1
