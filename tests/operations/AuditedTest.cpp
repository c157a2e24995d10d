#include "tests/operations/AuditedTest.h"

#include <cerrno>
#include <filesystem>
#include <iterator>

#include <sys/wait.h>

namespace cagnt1::operations {

AuditedTest::AuditedTest() : descriptorsBefore(openDescriptors()) {}

AuditedTest::~AuditedTest() {
    EXPECT_EQ(descriptorsBefore, openDescriptors());
    siginfo_t child{};
    EXPECT_EQ(-1, ::waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT));
    EXPECT_EQ(ECHILD, errno);
}

std::size_t openDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace cagnt1::operations
