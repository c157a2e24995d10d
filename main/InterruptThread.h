#pragma once

#include "basekit2/UniqueFd.h"

#include <thread>

namespace cagnt1 {

/// Makes `handler` the program's action on SIGINT (sigaction(2), empty mask, no flags). The
/// signal stays pending until an `InterruptThread` lets it in.
void installInterruptHandler(void (*handler)(int));

/// The one thread on which a SIGINT is delivered. It does nothing but wait with the signal
/// unblocked, so that a handler may take locks and allocate: it never interrupts code that holds
/// a lock. In every other thread SIGINT is blocked.
class InterruptThread {
public:
    /// Starts to let the signal in, one that came earlier included.
    /// @throws std::system_error when there is no descriptor or no thread to be had
    InterruptThread();

    /// Lets a handler that is running finish, then lets no more signals in.
    ~InterruptThread();

    InterruptThread(const InterruptThread&) = delete;
    InterruptThread& operator=(const InterruptThread&) = delete;

private:
    void waitForEnd() const;

    basekit2::UniqueFd endEvent;
    std::thread thread;  // last: it uses the event
};

}  // namespace cagnt1
