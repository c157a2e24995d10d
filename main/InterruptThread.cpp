#include "main/InterruptThread.h"

#include "basekit2/Event.h"

#include <cerrno>
#include <csignal>

#include <poll.h>
#include <sys/eventfd.h>

namespace cagnt1 {

void installInterruptHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    (void)::sigaction(SIGINT, &action, nullptr);
}

InterruptThread::InterruptThread()
    : endEvent(basekit2::create_event()), thread([this] { waitForEnd(); }) {}

InterruptThread::~InterruptThread() {
    (void)::eventfd_write(endEvent.get(), 1);
    thread.join();
}

void InterruptThread::waitForEnd() const {
    sigset_t waiting;
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &waiting);
    sigdelset(&waiting, SIGINT);
    pollfd end{endEvent.get(), POLLIN, 0};
    // Only this call lets the signal in, and only while it waits. It is called again after an
    // interrupt, and after a moment without memory, which must not end the thread.
    while (::ppoll(&end, 1, nullptr, &waiting) < 0 && (errno == EINTR || errno == ENOMEM)) {
    }
}

}  // namespace cagnt1
