#include "main/ProcessSetup.h"

#include "basekit2/process/DescriptorLimit.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace cagnt1 {

namespace {

void openStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) {
            // open(2) takes the lowest free number, which is this one.
            (void)::open("/dev/null", O_RDWR);
        }
    }
}

void blockSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGPIPE);
    (void)::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
}

// The kernel doubles a process's table of descriptors whenever it is full, and where there are
// threads each doubling waits until every processor has passed a point of rest. A crowd of
// operations met five of them; now the table has its size before there are threads. It takes 8
// bytes a descriptor, in the kernel.
void makeRoomForDescriptors() {
    constexpr rlim_t kEnoughForACrowd = 4096;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        const auto last = static_cast<int>(std::min(limit.rlim_cur, kEnoughForACrowd)) - 1;
        const int highest = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, last);
        if (highest >= 0) {
            (void)::close(highest);  // nothing was written through it
        }
    }
}

// The C library gives a freed block back to the system if it has at least this size. By default it
// raises that size whenever a larger block is freed; after one flood of output an idle agent would
// keep a hundred megabytes.
void giveLargeBlocksBack() {
    constexpr int kLargeBlock = 128 * 1024;  // what the C library begins with
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
    (void)::mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

// A thread gets as much address space as the main thread's stack may grow to, usually 8 MB, and an
// agent has a dozen threads when it is at work and two for each upload. Nothing here needs much:
// the largest thing on any stack is the 64 KB into which a pipe is read.
void lowerStackSize() {
    constexpr std::size_t kStackSize = std::size_t{1024} * 1024;
    pthread_attr_t attributes;
    std::size_t usual = 0;
    if (::pthread_getattr_default_np(&attributes) != 0) {
        return;
    }
    if (::pthread_attr_getstacksize(&attributes, &usual) == 0 && usual > kStackSize &&
        ::pthread_attr_setstacksize(&attributes, kStackSize) == 0) {
        // Where it fails threads work as well and take more room.
        (void)::pthread_setattr_default_np(&attributes);
    }
    (void)::pthread_attr_destroy(&attributes);  // cannot fail
}

}  // namespace

void prepareProcess() {
    openStandardDescriptors();
    blockSignals();
    (void)::signal(SIGCHLD, SIG_DFL);
    basekit2::process::raise_descriptor_limit();
    makeRoomForDescriptors();
    giveLargeBlocksBack();
    lowerStackSize();
}

}  // namespace cagnt1
