// A program of known behaviour for the tests of the engines. It is told what to do by its
// arguments and by lines on standard input, answers in lines on standard output, and exits with
// status 7 when standard input ends.
//
//   burn MILLISECONDS THREADS     on "go": each thread burns so much processor time of its own;
//                                 answers "cpu NANOSECONDS", of the whole process
//   burn-and-stay MILLISECONDS THREADS    the same, but the threads wait afterwards until the end
//   brief MICROSECONDS THREADS    the same as "burn", but one thread after the other
//   spin THREADS                  so many threads run until the end
//   grow THREADS                  on "go": begins a thread, which begins another one, and so on;
//   all
//                                 run until the end
//   churn                         threads begin and end until the end
//   forks                         processes begin and end until the end
//   orphan                        on "go": begins a process that runs until it is killed, and ends
//   leaderless                    the first thread ends, and another one runs on
//   tree MILLISECONDS DEPTH       on "go": burns, while its child does the same, and so on; each
//   says
//                                 "process NUMBER" at its start, "used NANOSECONDS NUMBER" when it
//                                 has burned, and the first one "done" when all have ended
//   map-late MILLISECONDS         on "go": burns on one processor, maps code again and again, and
//                                 answers "code ADDRESS" with the last
//   exec main|thread ARGUMENTS    on "go": that thread executes this program again
//
// Lines: "progress" answers how far the threads have come, "signals" how many of the real-time
// signal were received, "name TEXT" gives the first thread another name.

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Arguments = std::vector<std::string>;

constexpr int kExitStatus = 7;

std::atomic<std::uint64_t> progress{0};
std::atomic<std::uint64_t> signalsReceived{0};

std::int64_t clockNow(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void burn(std::int64_t nanoseconds) {
    const std::int64_t end = clockNow(CLOCK_THREAD_CPUTIME_ID) + nanoseconds;
    while (clockNow(CLOCK_THREAD_CPUTIME_ID) < end) {
        for (int i = 0; i < 1000; ++i) {
            ++progress;
        }
    }
}

void say(const std::string& word, std::uint64_t number) {
    std::cout << word << " " << number << std::endl;
}

[[noreturn]] void spin() {
    for (;;) {
        ++progress;
    }
}

void burnAndTell(std::int64_t nanoseconds, long count, bool together) {
    const std::int64_t before = clockNow(CLOCK_PROCESS_CPUTIME_ID);
    std::vector<std::thread> threads;
    for (long i = 0; i < count; ++i) {
        threads.emplace_back(burn, nanoseconds);
        if (!together) {
            threads.back().join();
        }
    }
    for (std::thread& thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    say("cpu", static_cast<std::uint64_t>(clockNow(CLOCK_PROCESS_CPUTIME_ID) - before));
}

void burnAndStay(std::int64_t nanoseconds, long count) {
    std::latch burned(count);
    for (long i = 0; i < count; ++i) {
        std::thread([&burned, nanoseconds] {
            burn(nanoseconds);
            burned.count_down();
            (void)::pause();
        }).detach();
    }
    burned.wait();
    say("cpu", static_cast<std::uint64_t>(clockNow(CLOCK_PROCESS_CPUTIME_ID)));
}

[[noreturn]] void grow(long count) {
    if (count > 1) {
        std::thread(grow, count - 1).detach();
    }
    spin();
}

[[noreturn]] void churn() {
    for (;;) {
        std::thread([] { burn(200'000); }).join();
    }
}

[[noreturn]] void forks() {
    for (;;) {
        const pid_t child = ::fork();
        if (child == 0) {
            burn(200'000);
            ::_exit(0);
        }
        ++progress;
        (void)::waitpid(child, nullptr, 0);
    }
}

void tree(std::int64_t nanoseconds, long depth) {
    const std::int64_t before = clockNow(CLOCK_PROCESS_CPUTIME_ID);
    say("process", static_cast<std::uint64_t>(::getpid()));
    const pid_t child = depth > 1 ? ::fork() : -1;
    if (child == 0) {
        tree(nanoseconds, depth - 1);
        ::_exit(0);
    }
    burn(nanoseconds);
    const auto used = static_cast<std::uint64_t>(clockNow(CLOCK_PROCESS_CPUTIME_ID) - before);
    say("used " + std::to_string(used), static_cast<std::uint64_t>(::getpid()));
    if (child > 0) {
        (void)::waitpid(child, nullptr, 0);
    }
}

// The many mappings fill what room is left in a ring that is too full for another sample.
void mapLate(std::int64_t nanoseconds) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
    (void)::sched_setaffinity(0, sizeof one, &one);
    burn(nanoseconds);
    constexpr std::size_t kLength = 4096;
    constexpr int kTimes = 5000;
    const int program = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    void* mapped = nullptr;
    for (int i = 0; i < kTimes; ++i) {
        mapped = ::mmap(nullptr, kLength, PROT_READ | PROT_EXEC, MAP_PRIVATE, program, 0);
    }
    say("code", reinterpret_cast<std::uintptr_t>(mapped));
}

void executeAgain(const Arguments& arguments) {
    std::vector<char*> pointers;
    std::string program = "/proc/self/exe";
    pointers.push_back(program.data());
    Arguments copies = arguments;
    for (std::string& copy : copies) {
        pointers.push_back(copy.data());
    }
    pointers.push_back(nullptr);
    (void)::execv(pointers[0], pointers.data());
    ::_exit(1);
}

[[noreturn]] void obey(const std::function<void()>& go) {
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "go") {
            go();
        } else if (line == "progress") {
            say("progress", progress);
        } else if (line == "signals") {
            say("signals", signalsReceived);
        } else if (line.starts_with("name ")) {
            (void)::prctl(PR_SET_NAME, line.c_str() + 5);
            std::cout << "named" << std::endl;
        }
    }
    ::_exit(kExitStatus);
}

void startThreads(long count, void (*work)()) {
    for (long i = 0; i < count; ++i) {
        std::thread(work).detach();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments(argv + 1, argv + argc);
    const auto number = [&](std::size_t index) { return std::stol(arguments.at(index)); };
    (void)std::signal(SIGRTMIN, [](int) { ++signalsReceived; });
    std::function<void()> go = [] {};
    const std::string mode = arguments.at(0);
    if (mode == "burn") {
        go = [&] { burnAndTell(number(1) * 1'000'000, number(2), true); };
    } else if (mode == "burn-and-stay") {
        go = [&] { burnAndStay(number(1) * 1'000'000, number(2)); };
    } else if (mode == "brief") {
        go = [&] { burnAndTell(number(1) * 1'000, number(2), false); };
    } else if (mode == "spin") {
        startThreads(number(1), [] { spin(); });
    } else if (mode == "grow") {
        go = [&] { std::thread(grow, number(1)).detach(); };
    } else if (mode == "churn") {
        startThreads(2, [] { churn(); });
    } else if (mode == "forks") {
        startThreads(2, [] { forks(); });
    } else if (mode == "leaderless") {
        startThreads(1, [] { spin(); });
    } else if (mode == "orphan") {
        go = [] {
            const pid_t child = ::fork();
            if (child == 0) {
                spin();
            }
            say("process", static_cast<std::uint64_t>(child));
            ::_exit(kExitStatus);
        };
    } else if (mode == "tree") {
        go = [&] {
            tree(number(1) * 1'000'000, number(2));
            std::cout << "done" << std::endl;
        };
    } else if (mode == "map-late") {
        go = [&] { mapLate(number(1) * 1'000'000); };
    } else if (mode == "exec") {
        const Arguments again(arguments.begin() + 2, arguments.end());
        go = [again, fromThread = arguments.at(1) == "thread"] {
            if (fromThread) {
                std::thread(executeAgain, again).join();
            }
            executeAgain(again);
        };
    }
    std::cout << "ready" << std::endl;
    if (mode == "leaderless") {
        std::thread([go] { obey(go); }).detach();
        ::pthread_exit(nullptr);
    }
    obey(go);
}
