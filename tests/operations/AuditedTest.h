#pragma once

#include <gtest/gtest.h>

#include <cstddef>

namespace cagnt1::operations {

/// Base of fixtures whose tests must leave no descriptor open and no child process behind.
class AuditedTest : public testing::Test {
protected:
    AuditedTest();

    /// Runs after the members of the derived fixture are gone.
    ~AuditedTest() override;

private:
    std::size_t descriptorsBefore;
};

/// Number of descriptors that this process has open.
std::size_t openDescriptors();

}  // namespace cagnt1::operations
