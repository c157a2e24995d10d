#include "agent/PrintError.h"

#include "tests/support/CapturedStream.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::CapturedStream;

TEST(PrintErrorTest, TextIsOneLineOnStandardError) {
    CapturedStream output(STDOUT_FILENO);
    CapturedStream errors(STDERR_FILENO);

    printError(std::runtime_error("Connection is lost"));
    printError(std::logic_error(""));

    EXPECT_EQ("Connection is lost\n\n", errors.text());
    EXPECT_EQ("", output.text());
}

}  // namespace
}  // namespace cagnt1
