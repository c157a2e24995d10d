#include "tests/support/FailingCall.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kolvan::test {

namespace {

std::string inheritedOptions(const char* variable) {
    const char* const options = std::getenv(variable);
    return options != nullptr ? std::string(options) + ":" : std::string();
}

}  // namespace

FailingCall::FailingCall(std::string kind, int error, std::uint64_t firstCall, std::uint64_t step)
    : description(std::move(kind) + " " + std::to_string(firstCall) + " " + std::to_string(step) +
                  " " + std::to_string(error)),
      first(firstCall),
      counter(place.write("counter", std::string(sizeof(std::uint64_t), '\0'))),
      leash(place.entry("pipe")) {}

void FailingCall::applyTo(AgentLaunch& launch) const {
    launch.environment["LD_PRELOAD"] = KOLVAN_NTH_FAILURE_SHIM;
    launch.environment["KOLVAN_FAULT"] = description;
    launch.environment["KOLVAN_FAULT_COUNTER"] = counter;
    launch.environment["KOLVAN_FAULT_PIPE"] = leash.path();
    // The sanitizer wants to be the first library; behind the shim it does all the same.
    launch.environment["ASAN_OPTIONS"] =
        inheritedOptions("ASAN_OPTIONS") + "verify_asan_link_order=0";
}

void FailingCall::release() {
    leash.release();
}

std::uint64_t FailingCall::calls() const {
    const std::string bytes = readFile(counter);
    std::uint64_t count = 0;
    if (bytes.size() != sizeof(count)) {
        throw std::runtime_error("the counter of calls is gone");
    }
    std::memcpy(&count, bytes.data(), sizeof(count));
    return count;
}

}  // namespace kolvan::test
