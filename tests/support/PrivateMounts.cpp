#include "tests/support/PrivateMounts.h"

#include <thread>

#include <sched.h>
#include <sys/mount.h>

namespace kolvan::test {

bool makeMountsPrivate() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool runWithPrivateMounts(const std::function<void()>& body) {
    bool granted = false;
    std::thread([&] {
        granted = makeMountsPrivate();
        if (granted) {
            body();
        }
    }).join();
    return granted;
}

}  // namespace kolvan::test
