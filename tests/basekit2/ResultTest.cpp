#include "basekit2/result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

namespace {

using basekit2::result_t;

TEST(ResultTest, NewCodeIsEmptyAndNoFailure) {
    const result_t code;

    EXPECT_TRUE(code.is_empty());
    EXPECT_FALSE(code.is_failure());
    EXPECT_EQ(std::error_code(), code.error_code());
}

TEST(ResultTest, NoErrorIsNeitherEmptyNorAFailure) {
    const result_t code = result_t::no_error();

    EXPECT_FALSE(code.is_empty());
    EXPECT_FALSE(code.is_failure());
    EXPECT_EQ(std::error_code(), code.error_code());
}

TEST(ResultTest, SystemErrorIsAFailureThatCarriesItsNumber) {
    const result_t code = result_t::from_errno(ENOENT);

    EXPECT_FALSE(code.is_empty());
    EXPECT_TRUE(code.is_failure());
    EXPECT_EQ(std::error_code(ENOENT, std::generic_category()), code.error_code());
}

TEST(ResultTest, EmptyCodeIsNotEqualToSuccess) {
    EXPECT_NE(result_t::no_error(), result_t());
    EXPECT_EQ(result_t(), result_t());
    EXPECT_EQ(result_t::no_error(), result_t::no_error());
}

TEST(ResultTest, FailuresAreEqualWhenTheirNumbersAre) {
    EXPECT_EQ(result_t::from_errno(EMFILE), result_t::from_errno(EMFILE));
    EXPECT_NE(result_t::from_errno(EMFILE), result_t::from_errno(ENOENT));
    EXPECT_NE(result_t::no_error(), result_t::from_errno(EMFILE));
    EXPECT_NE(result_t(), result_t::from_errno(EMFILE));
}

}  // namespace
