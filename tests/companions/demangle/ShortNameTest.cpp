#include "companions/demangle/ShortName.h"

#include <gtest/gtest.h>

namespace kolvan {
namespace {

TEST(ShortNameTest, ParametersAndTemplateArgumentsGo) {
    EXPECT_EQ("PriceList::find", shortName("PriceList::find(unsigned long) const"));
    EXPECT_EQ("(anonymous namespace)::serve",
              shortName("(anonymous namespace)::serve(std::pair<int, (anonymous namespace)::A>)"));
    EXPECT_EQ("void sort<>", shortName("void sort<int*, bool (*)(int, int)>(int*, bool (*)(int))"));
    EXPECT_EQ("std::vector<>::push_back",
              shortName("std::vector<std::vector<int> >::push_back(X&&)"));
}

TEST(ShortNameTest, BracketsOfTheNameStay) {
    EXPECT_EQ("Less::operator()", shortName("Less::operator()(int, int) const"));
    EXPECT_EQ("operator<", shortName("operator<(A const&, A const&)"));
    EXPECT_EQ("A::operator->", shortName("A::operator->() const"));
    EXPECT_EQ("main::{lambda()#2}", shortName("main::{lambda()#2}"));
    EXPECT_EQ("f<>", shortName("f<decltype (a->b)>(int)"));
}

TEST(ShortNameTest, OtherNamesStayAsTheyAre) {
    for (const char* name : {"", "main", "[libx.so+0x...]", "__memcpy_avx512", "broken(", "a<b",
                             ")", ">", "core::fmt::write::h12", "<A as B>::c"}) {
        EXPECT_EQ(name, shortName(name));
    }
}

}  // namespace
}  // namespace kolvan
