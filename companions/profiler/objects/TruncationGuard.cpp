#include "companions/profiler/objects/TruncationGuard.h"

#include <cerrno>
#include <csignal>
#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

TruncationGuard* last = nullptr;

/// What handled the signal before.
struct sigaction formerAction {};

void onBusError(int /*signal*/, siginfo_t* information, void* /*context*/) {
    const int savedErrno = errno;
    if (!TruncationGuard::cover(information->si_addr)) {
        // The instruction is executed again when the handler returns, and meets the former action.
        (void)::sigaction(SIGBUS, &formerAction, nullptr);  // fails for wrong arguments only
    }
    errno = savedErrno;
}

void installHandler() {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    (void)::sigemptyset(&action.sa_mask);  // both fail for wrong arguments only
    (void)::sigaction(SIGBUS, &action, &formerAction);
}

}  // namespace

TruncationGuard::TruncationGuard(std::span<const char> mapping) : guarded(mapping), previous(last) {
    static const bool installed = (installHandler(), true);
    (void)installed;  // it is the installing that matters
    if (previous != nullptr) {
        previous->next = this;
    }
    last = this;
}

TruncationGuard::~TruncationGuard() {
    if (previous != nullptr) {
        previous->next = next;
    }
    if (next != nullptr) {
        next->previous = previous;
    } else {
        last = previous;
    }
}

bool TruncationGuard::cover(const void* address) noexcept {
    const auto place = reinterpret_cast<std::uintptr_t>(address);
    for (const TruncationGuard* guard = last; guard != nullptr; guard = guard->previous) {
        const auto begin = reinterpret_cast<std::uintptr_t>(guard->guarded.data());
        if (place >= begin && place - begin < guard->guarded.size()) {
            const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
            void* const page = reinterpret_cast<void*>(  // NOLINT(performance-no-int-to-ptr)
                place - place % pageSize);
            return ::mmap(page, pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
                          0) != MAP_FAILED;
        }
    }
    return false;
}

}  // namespace kolvan::profiler
