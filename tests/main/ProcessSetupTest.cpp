#include "main/ProcessSetup.h"

#include "basekit2/UniqueFd.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cagnt1 {

namespace {

namespace fs = std::filesystem;

// Runs `body` in a process of its own and returns what it returned there.
std::string inChild(const std::function<std::string()>& body) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return "no pipe";
    }
    basekit2::UniqueFd reading(ends[0]);
    // Out of the way of the numbers that the cases look at.
    basekit2::UniqueFd writing(::fcntl(ends[1], F_DUPFD_CLOEXEC, 200));
    ::close(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string report = body();
        const bool written = ::write(writing.get(), report.data(), report.size()) ==
                             static_cast<ssize_t>(report.size());
        ::_exit(written ? 0 : 1);
    }
    writing.reset();
    std::string report;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::read(reading.get(), buffer, sizeof(buffer))) > 0) {
        report.append(buffer, static_cast<std::size_t>(got));
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        return report + "died with status " + std::to_string(status);
    }
    return report;
}

std::string linkOf(int descriptor) {
    std::error_code error;
    const fs::path link = fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
    return error ? "closed" : link.string();
}

std::size_t openDescriptors() {
    const fs::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Numbers of the blocked signals of this thread, without the two that the C library keeps.
std::string blockedSignals() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string numbers;
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (sigismember(&mask, number) == 1) {
            numbers += std::to_string(number) + " ";
        }
    }
    return numbers;
}

const std::string kInterruptAndPipe = std::to_string(SIGINT) + " " + std::to_string(SIGPIPE) + " ";

void setAction(int number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigaction(number, &action, nullptr);
}

// Exit status, as this process is told, of a child that exits with 7.
std::string exitStatusOfAChild() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(7);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) {
        return "lost";
    }
    return std::to_string(WEXITSTATUS(status));
}

std::size_t stackOfANewThread() {
    std::size_t size = 0;
    std::thread([&size] {
        pthread_attr_t attributes;
        if (::pthread_getattr_np(::pthread_self(), &attributes) == 0) {
            (void)::pthread_attr_getstacksize(&attributes, &size);
            (void)::pthread_attr_destroy(&attributes);
        }
    }).join();
    return size;
}

void setUsualStack(std::size_t size) {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, size);
    ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
}

TEST(ProcessSetupTest, ThreadsGetAMegabyteOfStack) {
    EXPECT_EQ(std::to_string(1024 * 1024), inChild([] {
                  setUsualStack(8 * 1024 * 1024);
                  prepareProcess();
                  return std::to_string(stackOfANewThread());
              }));
}

TEST(ProcessSetupTest, SmallerStacksThatTheLimitAsksForStayAsTheyAre) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer starts no thread with a stack of that size";
#endif
    EXPECT_EQ(std::to_string(512 * 1024), inChild([] {
                  setUsualStack(512 * 1024);
                  prepareProcess();
                  return std::to_string(stackOfANewThread());
              }));
}

TEST(ProcessSetupTest, ClosedStandardDescriptorsAreOpenedOnTheNullDevice) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        std::string expected;
        for (unsigned number = 0; number < 3; ++number) {
            expected += (closed >> number & 1U) != 0 ? "/dev/null\n" : "/dev/zero\n";
        }
        EXPECT_EQ(expected, inChild([&] {
                      const int zero = ::open("/dev/zero", O_RDWR | O_CLOEXEC);
                      for (int number = 0; number < 3; ++number) {
                          ::dup2(zero, number);
                          if ((closed >> number & 1U) != 0) {
                              ::close(number);
                          }
                      }
                      prepareProcess();
                      return linkOf(0) + "\n" + linkOf(1) + "\n" + linkOf(2) + "\n";
                  }));
    }
}

TEST(ProcessSetupTest, NothingElseGetsAStandardNumberAfterwards) {
    EXPECT_EQ("free: 3 or more", inChild([] {
                  for (int number = 0; number < 10; ++number) {
                      ::close(number);
                  }
                  prepareProcess();
                  const int opened = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
                  return std::string(opened >= 3 ? "free: 3 or more" : "free: below 3");
              }));
}

TEST(ProcessSetupTest, ReplacedDescriptorsCanBeReadAndWritten) {
    EXPECT_EQ("read 0, written 1 1", inChild([] {
                  ::close(0);
                  ::close(1);
                  ::close(2);
                  prepareProcess();
                  char byte = 'x';
                  const ssize_t got = ::read(0, &byte, 1);
                  const ssize_t out = ::write(1, &byte, 1);
                  const ssize_t err = ::write(2, &byte, 1);
                  return "read " + std::to_string(got) + ", written " + std::to_string(out) + " " +
                         std::to_string(err);
              }));
}

TEST(ProcessSetupTest, NoFurtherDescriptorStaysOpen) {
    EXPECT_EQ("same", inChild([] {
                  const std::size_t before = openDescriptors();
                  ::close(0);
                  ::close(2);
                  prepareProcess();
                  return std::string(openDescriptors() == before ? "same" : "different");
              }));
}

TEST(ProcessSetupTest, InterruptAndBrokenPipeAreBlockedAndNothingElse) {
    EXPECT_EQ(kInterruptAndPipe, inChild([] {
                  sigset_t none;
                  sigemptyset(&none);
                  pthread_sigmask(SIG_SETMASK, &none, nullptr);
                  prepareProcess();
                  return blockedSignals();
              }));
    EXPECT_EQ(kInterruptAndPipe, inChild([] {
                  sigset_t all;
                  sigfillset(&all);
                  pthread_sigmask(SIG_SETMASK, &all, nullptr);
                  prepareProcess();
                  return blockedSignals();
              }));
}

TEST(ProcessSetupTest, ThreadsInheritTheMask) {
    EXPECT_EQ(kInterruptAndPipe, inChild([] {
                  prepareProcess();
                  std::string blocked;
                  std::thread([&] { blocked = blockedSignals(); }).join();
                  return blocked;
              }));
}

TEST(ProcessSetupTest, InterruptStaysPending) {
    EXPECT_EQ("pending", inChild([] {
                  setAction(SIGINT, SIG_DFL, 0);
                  prepareProcess();
                  ::kill(::getpid(), SIGINT);
                  sigset_t pending;
                  sigpending(&pending);
                  return std::string(sigismember(&pending, SIGINT) == 1 ? "pending" : "lost");
              }));
}

TEST(ProcessSetupTest, BrokenPipeIsAnErrorOfTheWrite) {
    EXPECT_EQ("EPIPE", inChild([] {
                  setAction(SIGPIPE, SIG_DFL, 0);
                  prepareProcess();
                  int ends[2];
                  if (::pipe2(ends, O_CLOEXEC) != 0) {
                      return std::string("no pipe");
                  }
                  ::close(ends[0]);
                  const ssize_t written = ::write(ends[1], "x", 1);
                  return std::string(written < 0 && errno == EPIPE ? "EPIPE" : "no error");
              }));
}

TEST(ProcessSetupTest, ExitStatusOfAChildIsKeptAlsoWhenChildrenWereIgnored) {
    EXPECT_EQ("7", inChild([] {
                  setAction(SIGCHLD, SIG_IGN, 0);
                  prepareProcess();
                  return exitStatusOfAChild();
              }));
    EXPECT_EQ("7", inChild([] {
                  setAction(SIGCHLD, SIG_DFL, SA_NOCLDWAIT);
                  prepareProcess();
                  return exitStatusOfAChild();
              }));
}

TEST(ProcessSetupTest, ActionOnTheEndOfAChildIsTheDefault) {
    EXPECT_EQ("default", inChild([] {
                  setAction(SIGCHLD, SIG_IGN, 0);
                  prepareProcess();
                  struct sigaction action {};
                  ::sigaction(SIGCHLD, nullptr, &action);
                  return std::string(action.sa_handler == SIG_DFL ? "default" : "another");
              }));
}

TEST(ProcessSetupTest, LimitOfOpenDescriptorsIsRaisedAsFarAsItMay) {
    EXPECT_EQ("300 300", inChild([] {
                  const rlimit low{250, 300};
                  ::setrlimit(RLIMIT_NOFILE, &low);
                  prepareProcess();
                  rlimit now{};
                  ::getrlimit(RLIMIT_NOFILE, &now);
                  return std::to_string(now.rlim_cur) + " " + std::to_string(now.rlim_max);
              }));
}

TEST(ProcessSetupTest, MemoryOfLargeTextsGoesBackToTheSystem) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer brings an allocator of its own";
#endif
    EXPECT_EQ("1 0", inChild([] {
                  prepareProcess();
                  // Freed, the first one would raise the limit above the second.
                  { const std::string large(8'000'000, 'x'); }
                  const std::size_t before = ::mallinfo2().hblks;
                  std::size_t during = 0;
                  {
                      const std::string text(4'000'000, 'x');
                      during = ::mallinfo2().hblks;
                  }
                  return std::to_string(during - before) + " " +
                         std::to_string(::mallinfo2().hblks - before);
              }));
}

}  // namespace

}  // namespace cagnt1
