#pragma once

#include "basekit2/UniqueFd.h"

#include <thread>

namespace cagnt1 {

/// Makes `handler` the program's action on SIGINT (sigaction(2), empty mask, no flags). The
/// signal stays pending until an `InterruptThread` lets it in.
void installInterruptHandler(void (*handler)(int));

/// The only thread on which SIGINT is delivered; in every other thread the signal is blocked. It
/// does nothing but wait, so a handler never interrupts code that holds a lock. Therefore the
/// handler may take locks and allocate memory.
class InterruptThread {
public:
    /// Begins to let the signal in; one that is already pending is delivered at once.
    /// @throws std::system_error when no descriptor or no thread is available
    InterruptThread();

    /// Waits for a handler that is running, then lets no more signals in.
    ~InterruptThread();

    InterruptThread(const InterruptThread&) = delete;
    InterruptThread& operator=(const InterruptThread&) = delete;

private:
    void waitForEnd() const;

    basekit2::UniqueFd endEvent;
    std::thread thread;  // last: it uses the event
};

}  // namespace cagnt1
