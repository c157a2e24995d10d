#include "tests/support/standin/ThreadSignals.h"

namespace kolvan::test {
namespace {

std::mutex& dispositionMutex() {
    static std::mutex only;
    return only;
}

}  // namespace

KeepSigpipeDisposition::KeepSigpipeDisposition() : lock(dispositionMutex()) {
    sigaction(SIGPIPE, nullptr, &saved);
}

KeepSigpipeDisposition::~KeepSigpipeDisposition() {
    sigaction(SIGPIPE, &saved, nullptr);
}

BlockSignals::BlockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
}

BlockSignals::~BlockSignals() {
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

}  // namespace kolvan::test
