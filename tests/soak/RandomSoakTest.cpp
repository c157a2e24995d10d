// The random soak as `scripts/soak` runs it: as long and from the seed as the environment says.
//
//   KOLVAN_SOAK_SECONDS   how long new lives begin
//   KOLVAN_SOAK_SEED      what makes the lives

#include "tests/soak/Workloads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kolvan::test::soak {
namespace {

std::uint64_t numberIn(const std::string& variable) {
    const char* const text = std::getenv(variable.c_str());
    if (text == nullptr) {
        throw std::runtime_error(variable + " is not set");
    }
    return std::stoull(text);
}

constexpr std::uint64_t kMostBatches = 30;

TEST(RandomSoakTest, UntilTheTimeIsOver) {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(numberIn("KOLVAN_SOAK_SECONDS"));

    soak(numberIn("KOLVAN_SOAK_SEED"), kMostBatches,
         [end](std::size_t lives) { return lives == 0 || std::chrono::steady_clock::now() < end; });
}

}  // namespace
}  // namespace kolvan::test::soak
