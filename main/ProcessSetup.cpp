#include "main/ProcessSetup.h"

#include "basekit2/process/DescriptorLimit.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace cagnt1 {

namespace {

void openStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) {
            // The lowest free number is taken, and that is this one.
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

// By default the limit rises with the largest block that was ever freed, and a single flood of
// output would leave a hundred megabytes in an agent that has nothing to do.
void giveLargeBlocksBack() {
    constexpr int kLargeBlock = 128 * 1024;  // what the C library begins with
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
    (void)::mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

}  // namespace

void prepareProcess() {
    openStandardDescriptors();
    blockSignals();
    (void)::signal(SIGCHLD, SIG_DFL);
    basekit2::process::raise_descriptor_limit();
    giveLargeBlocksBack();
}

}  // namespace cagnt1
