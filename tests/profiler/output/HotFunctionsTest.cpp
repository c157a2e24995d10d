#include "companions/profiler/output/HotFunctions.h"

#include "tests/profiler/output/SampleProfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kolvan::profiler {
namespace {

using test::ProfileBuilder;

std::string millisecondsText(std::uint64_t nanoseconds) {
    return std::to_string(nanoseconds / 1'000'000);
}

/// "name (module) self/total", times in milliseconds.
std::vector<std::string> functionTexts(const HotFunctions& hot) {
    std::vector<std::string> texts;
    for (const HotFunctions::Function& function : hot.functions) {
        texts.push_back(function.name + " (" + function.module + ") " +
                        millisecondsText(function.self) + "/" + millisecondsText(function.total));
    }
    return texts;
}

/// "self: root total > ... > leaf total", "cut: " in front of what does not reach its root.
std::vector<std::string> pathTexts(const HotFunctions& hot) {
    std::vector<std::string> texts;
    for (const HotFunctions::Path& path : hot.paths) {
        std::string& text = texts.emplace_back(path.complete ? "" : "cut: ");
        text += millisecondsText(path.self) + ":";
        for (const HotFunctions::Call& call : path.calls) {
            text += " " + call.name + " " + millisecondsText(call.total);
        }
    }
    return texts;
}

TEST(HotFunctionsTest, FunctionsAreOrderedByTheirOwnTimeThenByTheirTotal) {
    const HotFunctions hot = findHotFunctions(test::sampleProfile(), 10, 0);

    EXPECT_EQ((std::vector<std::string>{"mix (/opt/app/app) 720/720", "fib (/opt/app/app) 150/150",
                                        "ksys_read ([kernel]) 80/80",
                                        "[libplugin.so.1+0x...] (/usr/lib/libplugin.so.1) 50/50",
                                        "_start (/opt/app/app) 0/980", "main (/opt/app/app) 0/980",
                                        "hash (/opt/app/app) 0/720"}),
              functionTexts(hot));
    EXPECT_EQ(1'000'000'000U, hot.nanoseconds);
    EXPECT_TRUE(hot.paths.empty());
}

TEST(HotFunctionsTest, OnlyAsManyFunctionsAreGivenAsWereAskedFor) {
    const HotFunctions hot = findHotFunctions(test::sampleProfile(), 1, 0);

    EXPECT_EQ((std::vector<std::string>{"mix (/opt/app/app) 720/720"}), functionTexts(hot));
    EXPECT_EQ(1'000'000'000U, hot.nanoseconds);
}

TEST(HotFunctionsTest, RecursiveFunctionCountsOnceAStack) {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    const auto main = builder.location({"main"});
    const auto even = builder.location({"even"});
    const auto odd = builder.location({"odd"});
    builder.sample({main, even, odd, even, odd, even}, 10).sample({main, even, odd}, 5);

    EXPECT_EQ((std::vector<std::string>{"even (/a) 10/15", "odd (/a) 5/15", "main (/a) 0/15"}),
              functionTexts(findHotFunctions(builder.profile, 10, 0)));
}

TEST(HotFunctionsTest, AddressesOfOneFunctionCountTogether) {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    const auto one = builder.location({"f"});
    const auto another = builder.location({"f"});
    builder.module("/b");
    const auto namesake = builder.location({"f"});
    builder.sample({one}, 10).sample({another}, 5).sample({namesake}, 1);

    EXPECT_EQ((std::vector<std::string>{"f (/a) 15/15", "f (/b) 1/1"}),
              functionTexts(findHotFunctions(builder.profile, 10, 0)));
}

TEST(HotFunctionsTest, AddressesWithoutANameCountTogetherForEachModule) {
    ProfileBuilder builder;
    builder.module("/x/liba.so").thread(1, 1, "t", "p");
    const auto one = builder.location({});
    const auto another = builder.location({});
    builder.module("[anon]");
    const auto anonymous = builder.location({});
    builder.sample({one}, 10).sample({one, another}, 5).sample({anonymous}, 1).sample({}, 4);

    EXPECT_EQ((std::vector<std::string>{"[liba.so+0x...] (/x/liba.so) 15/15", "[no stack] () 4/4",
                                        "[anon+0x...] ([anon]) 1/1"}),
              functionTexts(findHotFunctions(builder.profile, 10, 0)));
}

TEST(HotFunctionsTest, PathsAreWholeStacksWithTheTimeOfEachOfTheirCalls) {
    const HotFunctions hot = findHotFunctions(test::sampleProfile(), 0, 10);

    EXPECT_EQ((std::vector<std::string>{
                  "700: _start 980 main 980 hash 700 mix 700", "150: _start 980 main 980 fib 150",
                  "80: _start 980 main 980 ksys_read 80",
                  "50: _start 980 main 980 [libplugin.so.1+0x...] 50", "cut: 20: hash 20 mix 20"}),
              pathTexts(hot));
}

TEST(HotFunctionsTest, DirectRecursionOfAnyDepthIsOnePath) {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    const auto main = builder.location({"main"});
    const auto fib = builder.location({"fib"});
    const auto leaf = builder.location({"leaf"});
    builder.sample({main, fib, leaf}, 1)
        .sample({main, fib, fib, leaf}, 2)
        .sample({main, fib, fib, fib, leaf}, 3)
        .sample({main, leaf}, 4);

    EXPECT_EQ((std::vector<std::string>{"6: main 10 fib 6 leaf 6", "4: main 10 leaf 4"}),
              pathTexts(findHotFunctions(builder.profile, 0, 10)));
}

TEST(HotFunctionsTest, PathThatEndsInsideAnotherOneIsAPathOfItsOwn) {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    const auto main = builder.location({"main"});
    const auto work = builder.location({"work"});
    builder.sample({main, work}, 3).sample({main}, 2);

    EXPECT_EQ((std::vector<std::string>{"3: main 5 work 3", "2: main 5"}),
              pathTexts(findHotFunctions(builder.profile, 0, 10)));
    EXPECT_EQ((std::vector<std::string>{"3: main 5 work 3"}),
              pathTexts(findHotFunctions(builder.profile, 0, 1)));
}

TEST(HotFunctionsTest, ProfileWithoutSamplesHasNothingHot) {
    const HotFunctions hot = findHotFunctions(Profile(), 10, 3);

    EXPECT_EQ(0U, hot.nanoseconds);
    EXPECT_TRUE(hot.functions.empty());
    EXPECT_TRUE(hot.paths.empty());
}

}  // namespace
}  // namespace kolvan::profiler
