#include "companions/demangle/Demangle.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using kolvan::demangle;

TEST(DemangleTest, NamesOfCppAreAsInTheSource) {
    EXPECT_EQ("kolvan::fixture::hidden(int)", demangle("_ZN6kolvan7fixture6hiddenEi"));
    EXPECT_EQ("long kolvan::fixture::twice<long>(long)",
              demangle("_ZN6kolvan7fixture5twiceIlEET_S2_"));
}

TEST(DemangleTest, OtherNamesStayAsTheyAre) {
    EXPECT_EQ("main", demangle("main"));
    EXPECT_EQ("", demangle(""));
    EXPECT_EQ("_Z", demangle("_Z"));
    EXPECT_EQ("_Zno", demangle("_Zno"));
}

TEST(DemangleTest, APartOfAFunctionIsNamedAfterIt) {
    EXPECT_EQ("kolvan::fixture::hidden(int) [clone .cold]",
              demangle("_ZN6kolvan7fixture6hiddenEi.cold"));
}

TEST(DemangleTest, AShortNameOfGigabytesStaysAsItIs) {
    // f(A, p<A, A>, p<p<A, A>, p<A, A>>, ...): each type is twice as long as the one before it.
    std::string name = "_Z1f1A1pIS_S_E";
    const std::string digits = "123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (const char digit : digits) {
        const std::string last = std::string("S") + digit + "_";
        name += "S0_I" + last + last + "E";
    }

    EXPECT_EQ(name, demangle(name));
}

TEST(DemangleTest, AnAbsurdlyLongNameStaysAsItIs) {
    const std::string name = "_Z1f" + std::string(1'000'000, 'P') + "i";

    EXPECT_EQ(name, demangle(name));
}

}  // namespace
