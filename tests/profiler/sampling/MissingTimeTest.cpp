#include "companions/profiler/sampling/MissingTime.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kolvan::test {

namespace {

using profiler::Coverage;
using profiler::EngineReport;
using profiler::explainMissingTime;

constexpr std::uint64_t kPeriod = 1'000'000;
constexpr std::uint64_t kSecond = 1'000'000'000;

constexpr const char* kShortThreads =
    "Many threads ran for less than the time between two samples and have none; a higher "
    "--frequency sees more of them.";
constexpr const char* kNoTimer =
    "Some processor time has no samples: in a virtual machine no timer expires while it waits for "
    "a processor.";
constexpr const char* kBetweenLooks = "Many threads ended between two looks and have no samples.";

/// A second of processor time, of which so much was sampled.
Coverage sampled(std::uint64_t nanoseconds) {
    Coverage coverage;
    coverage.sampledNanoseconds = nanoseconds;
    coverage.accountedNanoseconds = kSecond;
    return coverage;
}

EngineReport withTimers(std::uint64_t threadsBegun) {
    EngineReport report;
    report.hasTimers = true;
    report.period = kPeriod;
    report.threadsBegun = threadsBegun;
    return report;
}

EngineReport withLooks(std::uint64_t threadsBegun) {
    EngineReport report = withTimers(threadsBegun);
    report.hasTimers = false;
    return report;
}

}  // namespace

TEST(MissingTimeTest, ATenthMayBeMissing) {
    EXPECT_EQ(std::nullopt, explainMissingTime(sampled(kSecond * 9 / 10), withTimers(0)));
    EXPECT_NE(std::nullopt, explainMissingTime(sampled(kSecond * 9 / 10 - 1), withTimers(0)));
}

TEST(MissingTimeTest, MoreSamplesThanTimeMissNothing) {
    EXPECT_EQ(std::nullopt, explainMissingTime(sampled(kSecond * 2), withTimers(0)));
}

TEST(MissingTimeTest, AShareOfAFewPeriodsSaysNothing) {
    Coverage coverage = sampled(0);
    coverage.accountedNanoseconds = 100 * kPeriod;
    EXPECT_EQ(std::nullopt, explainMissingTime(coverage, withTimers(0)));

    coverage.accountedNanoseconds += 1;
    EXPECT_NE(std::nullopt, explainMissingTime(coverage, withTimers(0)));
}

TEST(MissingTimeTest, LossesAreReasonEnough) {
    Coverage coverage = sampled(0);
    coverage.lost = 1;

    EXPECT_EQ(std::nullopt, explainMissingTime(coverage, withTimers(0)));
}

TEST(MissingTimeTest, ThreadsThatCanHaveHiddenMostOfItAreTheReason) {
    const Coverage half = sampled(kSecond / 2);  // 500 periods are missing

    EXPECT_EQ(kShortThreads, explainMissingTime(half, withTimers(251)));
    EXPECT_EQ(kNoTimer, explainMissingTime(half, withTimers(250)));
}

TEST(MissingTimeTest, WhatAProgramOfOneThreadMissesIsATimerThatDidNotExpire) {
    EXPECT_EQ(kNoTimer, explainMissingTime(sampled(kSecond / 2), withTimers(0)));
}

TEST(MissingTimeTest, WithoutTimersThreadsCanEndUnseenAndNoTimerIsBlamed) {
    const Coverage half = sampled(kSecond / 2);

    EXPECT_EQ(kBetweenLooks, explainMissingTime(half, withLooks(251)));
    EXPECT_EQ(std::nullopt, explainMissingTime(half, withLooks(250)));
}

}  // namespace kolvan::test
