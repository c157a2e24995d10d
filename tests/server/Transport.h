#pragma once

#include "tests/support/CapturedStream.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

namespace kolvan::test {

/// What one call of the transport did.
template <typename Result>
struct Outcome {
    std::optional<Result> result;      ///< none when it threw
    std::optional<std::string> error;  ///< text of the std::runtime_error that it threw
    std::string out;                   ///< on standard output
    std::string err;                   ///< on standard error
};

/// Calls, and keeps everything that can be seen of it.
template <typename Call>
auto observe(Call call) {
    Outcome<decltype(call())> outcome;
    CapturedStream out(1);
    CapturedStream err(2);
    try {
        outcome.result = call();
    } catch (const std::runtime_error& error) {
        outcome.error = error.what();
    }
    outcome.out = out.text();
    outcome.err = err.text();
    return outcome;
}

/// Expects that a call threw exactly `text`, and wrote it to standard error without a line end.
template <typename Result>
void expectFailure(const std::string& text, const Outcome<Result>& outcome) {
    EXPECT_FALSE(outcome.result.has_value());
    EXPECT_EQ(text, outcome.error.value_or("no error"));
    EXPECT_EQ(text, outcome.err);
}

/// Number of descriptors that this process has open.
inline std::size_t openDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// Gives a case the surroundings that the agent gives its threads: SIGPIPE is blocked. The
/// machine's proxies are not asked.
class TransportTest : public ::testing::Test {
protected:
    TransportTest() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signals, &formerMask);
        for (const char* const name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy",
                                       "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
            ::unsetenv(name);
        }
    }

    ~TransportTest() override {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        const timespec atOnce{};
        while (sigtimedwait(&signals, nullptr, &atOnce) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &formerMask, nullptr);
    }

private:
    sigset_t formerMask;
};

}  // namespace kolvan::test
