#include "companions/profiler/unwind/Unwinder.h"

#include "tests/profiler/unwind/ObservedProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <sys/ptrace.h>
#include <sys/wait.h>

namespace {

using kolvan::profiler::AddressSpace;
using kolvan::profiler::ObjectStore;
using kolvan::profiler::Registers;
using kolvan::profiler::Unwinder;
using kolvan::profiler::UnwoundStack;
using kolvan::test::ObservedProcess;
using kolvan::test::ReportedStack;
using End = UnwoundStack::End;

constexpr std::size_t kWholeStack = 8U << 20;

std::vector<std::string> fixture(const std::string& scenario) {
    return {KOLVAN_STACK_FIXTURE, scenario, KOLVAN_STACK_LIBRARY};
}

/// Readable in a failed expectation.
std::string endName(End end) {
    switch (end) {
        case End::Root:
            return "root";
        case End::CopyEnds:
            return "copy ends";
        case End::NoRules:
            return "no rules";
        case End::Limit:
            return "limit";
        case End::Nonsense:
            return "nonsense";
    }
    return "?";
}

/// Without the first one, which stands for two places in one function.
std::vector<std::uint64_t> callers(std::vector<std::uint64_t> addresses) {
    addresses.erase(addresses.begin());
    return addresses;
}

class UnwinderTest : public testing::Test {
protected:
    UnwoundStack unwind(const ObservedProcess& process, const Registers& registers,
                        std::size_t most = kWholeStack) {
        const auto stack = process.memory(registers.stackPointer(), most);
        return unwinder.unwind(registers, stack, process.addressSpace(store));
    }

    /// Expects that the stack of the scenario is the one that the C library sees.
    UnwoundStack expectWholeStack(const std::string& scenario) {
        ObservedProcess process(fixture(scenario));
        const ReportedStack expected(process);

        UnwoundStack stack = unwind(process, expected.registers);

        EXPECT_EQ("root", endName(stack.end));
        EXPECT_EQ(expected.registers.instruction(), stack.addresses.front());
        EXPECT_EQ(callers(expected.addresses), callers(stack.addresses));
        return stack;
    }

    ObjectStore store;
    Unwinder unwinder;
};

TEST_F(UnwinderTest, PlainCallsReachTheRoot) {
    const UnwoundStack stack = expectWholeStack("plain");

    EXPECT_LT(6U, stack.addresses.size());
    EXPECT_EQ(0U, stack.byFramePointer);
    EXPECT_TRUE(stack.interrupted.empty());
}

TEST_F(UnwinderTest, FiveHundredCallsOfOneFunctionAreAllSeen) {
    EXPECT_LT(500U, expectWholeStack("recursion").addresses.size());
}

TEST_F(UnwinderTest, LargeFramesAreCrossed) {
    (void)expectWholeStack("large");
}

TEST_F(UnwinderTest, FramesOfAnySizeAreCrossed) {
    (void)expectWholeStack("alloca");
}

TEST_F(UnwinderTest, FramesThatWereAlignedByHandAreCrossed) {
    (void)expectWholeStack("aligned");
}

TEST_F(UnwinderTest, FunctionsOfTheCLibraryAreCrossed) {
    (void)expectWholeStack("qsort");
}

TEST_F(UnwinderTest, AnExceptionsHandlerHasItsCallers) {
    (void)expectWholeStack("catch");
}

TEST_F(UnwinderTest, WhatRunsWhileAnExceptionFliesHasItsCallers) {
    (void)expectWholeStack("cleanup");
}

TEST_F(UnwinderTest, AThreadsStackEndsAtTheThreadsBeginning) {
    (void)expectWholeStack("thread");
}

TEST_F(UnwinderTest, ALibraryThatWasLoadedLaterIsCrossed) {
    (void)expectWholeStack("library");
}

TEST_F(UnwinderTest, ASignalsHandlerStandsOnWhatItInterrupts) {
    const UnwoundStack stack = expectWholeStack("signal");

    // The handler's caller is the code that returns from signals; it has "called" raise.
    EXPECT_EQ((std::vector<std::size_t>{3}), stack.interrupted);
}

TEST_F(UnwinderTest, AHandlersOwnStackIsLeftAsFarAsItsCopyGoes) {
    ObservedProcess process(fixture("sigaltstack"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("copy ends", endName(stack.end));
    EXPECT_EQ((std::vector<std::size_t>{3}), stack.interrupted);
    ASSERT_EQ(4U, stack.addresses.size());
    EXPECT_TRUE(std::equal(stack.addresses.begin() + 1, stack.addresses.end(),
                           expected.addresses.begin() + 1));
}

}  // namespace
