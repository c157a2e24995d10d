#include "tests/agent/HostNameShim.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include <dlfcn.h>
#include <unistd.h>

namespace {

struct Substitute {
    std::mutex mutex;  // guards active, errorNumber, hostName and bufferSize
    bool active = false;
    int errorNumber = 0;
    std::string hostName;
    std::size_t bufferSize = 0;
};

Substitute& substitute() {
    static Substitute instance;
    return instance;
}

}  // namespace

// Takes the place of the C library's function in this program.
extern "C" int gethostname(char* name, std::size_t length) noexcept {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.bufferSize = length;
    if (!state.active) {
        using Function = int (*)(char*, std::size_t);
        return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "gethostname"))(name, length);
    }
    if (state.errorNumber != 0 || state.hostName.size() >= length) {
        errno = state.errorNumber != 0 ? state.errorNumber : ENAMETOOLONG;
        return -1;
    }
    std::memcpy(name, state.hostName.c_str(), state.hostName.size() + 1);
    return 0;
}

namespace kolvan::test {

HostNameShim::HostNameShim(std::string hostName) {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.active = true;
    state.hostName = std::move(hostName);
}

HostNameShim::HostNameShim(int errorNumber) {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.active = true;
    state.errorNumber = errorNumber;
}

HostNameShim::~HostNameShim() {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    state.active = false;
    state.errorNumber = 0;
    state.hostName.clear();
}

std::size_t HostNameShim::bufferSize() const {
    Substitute& state = substitute();
    const std::lock_guard lock(state.mutex);
    return state.bufferSize;
}

}  // namespace kolvan::test
