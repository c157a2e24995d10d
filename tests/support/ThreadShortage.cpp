#include "tests/support/ThreadShortage.h"

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<bool> noThreadsLeft{false};

}  // namespace

// Takes the place of the C library's (or the sanitizer's) function in this program.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    if (noThreadsLeft) {
        return EAGAIN;
    }
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, start, argument);
}

namespace kolvan::test {

void ThreadShortage::begin() {
    noThreadsLeft = true;
}

void ThreadShortage::end() {
    noThreadsLeft = false;
}

}  // namespace kolvan::test
