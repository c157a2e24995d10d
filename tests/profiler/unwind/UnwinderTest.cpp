#include "companions/profiler/unwind/Unwinder.h"

#include "tests/profiler/unwind/ObservedProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <span>
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
        const std::uint64_t begin = registers.stackPointer();
        const std::uint64_t end = process.endOfMapping(begin);
        const auto stack = process.memory(begin, begin + std::min<std::size_t>(most, end - begin));
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

TEST_F(UnwinderTest, AContextsStackEndsWhereItBegan) {
    (void)expectWholeStack("context");
}

TEST_F(UnwinderTest, ACloneOnAStackOfItsOwnHasItsRoot) {
    (void)expectWholeStack("clone");
}

TEST_F(UnwinderTest, AVforkedChildStandsOnItsParentsStack) {
    (void)expectWholeStack("vfork");
}

TEST_F(UnwinderTest, AStackThatAssemblyBeganEndsThere) {
    ObservedProcess process(fixture("own-stack"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("root", endName(stack.end));
    ASSERT_LE(7U, stack.addresses.size());
    EXPECT_EQ(stack.addresses.size(), expected.addresses.size());
    EXPECT_EQ(callers(expected.addresses), callers(stack.addresses));
}

TEST_F(UnwinderTest, ACopyThatIsCutShortGivesWhatItHolds) {
    ObservedProcess process(fixture("large"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers, 60'000);

    EXPECT_EQ("copy ends", endName(stack.end));
    ASSERT_EQ(4U, stack.addresses.size());  // two frames of 25,000 bytes are left, the third is not
    EXPECT_TRUE(std::equal(stack.addresses.begin() + 1, stack.addresses.end(),
                           expected.addresses.begin() + 1));
}

TEST_F(UnwinderTest, WithoutACopyThereIsTheInstructionAlone) {
    ObservedProcess process(fixture("plain"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers, 0);

    EXPECT_EQ("copy ends", endName(stack.end));
    EXPECT_EQ((std::vector{expected.registers.instruction()}), stack.addresses);
}

TEST_F(UnwinderTest, EndlessRecursionIsFollowedUpToALimit) {
    ObservedProcess process(fixture("deep"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("limit", endName(stack.end));
    ASSERT_EQ(Unwinder::kMostFrames, stack.addresses.size());
    EXPECT_TRUE(std::equal(stack.addresses.begin() + 1, stack.addresses.end(),
                           expected.addresses.begin() + 1));
}

TEST_F(UnwinderTest, AssemblyWithoutRulesIsCrossedByItsFramePointer) {
    ObservedProcess process(fixture("assembly"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("root", endName(stack.end));
    EXPECT_EQ(1U, stack.byFramePointer);
    // The C library's unwinder ends at that frame, the second.
    EXPECT_EQ(expected.addresses.at(1), stack.addresses.at(1));
    EXPECT_LT(expected.addresses.size(), stack.addresses.size());
}

TEST_F(UnwinderTest, AssemblyWithoutRulesAndFramePointerIsCrossedByItsReturnAddress) {
    ObservedProcess process(fixture("registers"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("root", endName(stack.end));
    EXPECT_EQ(0U, stack.byFramePointer);
    EXPECT_EQ(1U, stack.bySearch);
    EXPECT_EQ(expected.addresses.at(1), stack.addresses.at(1));
    EXPECT_LT(expected.addresses.size(), stack.addresses.size());
}

TEST_F(UnwinderTest, CodeThatWasWrittenIntoMemoryIsCrossedByItsFramePointer) {
    ObservedProcess process(fixture("written"));
    const ReportedStack expected(process);

    const UnwoundStack stack = unwind(process, expected.registers);

    EXPECT_EQ("root", endName(stack.end));
    EXPECT_EQ(1U, stack.byFramePointer);
    EXPECT_EQ(expected.addresses.at(1), stack.addresses.at(1));
}

TEST_F(UnwinderTest, RegistersOfAnotherStackAreNoticed) {
    ObservedProcess process(fixture("aligned"));
    const ReportedStack expected(process);
    const AddressSpace space = process.addressSpace(store);
    const std::vector<std::byte> zeros(1'000);
    const std::vector<std::byte> ones(1'000, std::byte{0xFF});
    Registers garbage = expected.registers;
    garbage.values.fill(0xDEADBEEFDEADBEEFU);
    garbage.values[Registers::kInstruction] = expected.addresses.at(2);  // of an aligned frame

    EXPECT_EQ("nonsense", endName(unwinder.unwind(garbage, ones, space).end));
    EXPECT_EQ("nonsense", endName(unwinder.unwind(expected.registers, ones, space).end));
    garbage.values[Registers::kInstruction] = 0x1234;
    EXPECT_EQ("no rules", endName(unwinder.unwind(garbage, zeros, space).end));
}

struct BareProgram {
    const char* name;
    const char* path;  // empty where it could not be built
    bool framePointers;
};

void PrintTo(const BareProgram& program, std::ostream* stream) {
    *stream << program.name;
}

/// Programs of which no table tells.
class BareProgramTest : public UnwinderTest, public testing::WithParamInterface<BareProgram> {
protected:
    void SetUp() override {
        if (GetParam().path[0] == '\0') {
            GTEST_SKIP() << "Its compiler is not installed.";
        }
    }

    /// Expects all functions of the program in their order; what stands between them belongs to
    /// others.
    UnwoundStack expectCallers(const std::string& scenario) {
        ObservedProcess process({GetParam().path, scenario});
        const ReportedStack expected(process);

        UnwoundStack stack = unwind(process, expected.registers);

        EXPECT_EQ("root", endName(stack.end));
        auto next = expected.addresses.begin();
        for (const std::uint64_t address : stack.addresses) {
            next += next != expected.addresses.end() && *next == address ? 1 : 0;
        }
        EXPECT_TRUE(next == expected.addresses.end())
            << "missing: " << std::hex << *next << " of "
            << testing::PrintToString(expected.addresses) << " in "
            << testing::PrintToString(stack.addresses);
        return stack;
    }
};

std::string nameOfProgram(const testing::TestParamInfo<BareProgram>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(, BareProgramTest,
                         testing::Values(BareProgram{"FramePointers",
                                                     KOLVAN_BARE_WITH_FRAME_POINTERS, true},
                                         BareProgram{"NothingAtAll", KOLVAN_BARE_FIXTURE, false},
                                         BareProgram{"Musl", KOLVAN_BARE_MUSL, false}),
                         nameOfProgram);

TEST_P(BareProgramTest, CallsOfOneFunctionAreAllSeen) {
    const UnwoundStack stack = expectCallers("plain");

    EXPECT_EQ(GetParam().framePointers, stack.byFramePointer > 0);
    EXPECT_EQ(GetParam().framePointers, stack.bySearch == 0);
}

TEST_P(BareProgramTest, FunctionsOfTheCLibraryAreCrossed) {
    (void)expectCallers("qsort");
}

TEST_P(BareProgramTest, ASignalsHandlerStandsOnWhatItInterrupts) {
    EXPECT_EQ(1U, expectCallers("signal").interrupted.size());
}

TEST_P(BareProgramTest, SignalsThatLeadInACircleAreFollowedUpToALimit) {
    ObservedProcess process({GetParam().path, "signal"});
    const ReportedStack reported(process);
    const UnwoundStack known = unwind(process, reported.registers);
    ASSERT_EQ(1U, known.interrupted.size());
    Registers registers;
    registers.values[Registers::kInstruction] = known.addresses.at(known.interrupted.front() - 1);
    registers.values[Registers::kStackPointer] = 0x10000;
    // What the kernel puts on the stack, with a stack pointer and an instruction that lead back.
    std::vector<std::uint64_t> words(64);
    words.at(20) = registers.stackPointer();
    words.at(21) = registers.instruction();

    const UnwoundStack stack =
        unwinder.unwind(registers, std::as_bytes(std::span(words)), process.addressSpace(store));

    EXPECT_EQ("limit", endName(stack.end));
}

/// Lets a stopped child execute one instruction, and gives it the signals that it gets meanwhile.
/// @return the signal that it has been stopped by, SIGTRAP for none; 0 when it has ended
int executeOne(pid_t child, int signal) {
    int status = 0;
    if (::ptrace(PTRACE_SINGLESTEP, child, nullptr, signal) != 0 ||
        ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
        return 0;
    }
    return WSTOPSIG(status);
}

TEST_F(UnwinderTest, EveryInstructionOfARunHasItsRoot) {
    ObservedProcess process(fixture("observed"));
    int status = 0;
    ASSERT_EQ(process.id(), ::waitpid(process.id(), &status, 0));
    ASSERT_TRUE(WIFSTOPPED(status));
    const AddressSpace space = process.addressSpace(store);
    const Registers first = kolvan::test::readRegisters(process.id());
    const std::uint64_t stackEnd = process.endOfMapping(first.stackPointer());
    const std::uint64_t root = unwind(process, first).addresses.back();

    std::map<std::string, std::size_t> instructions;  // by path
    std::size_t lost = 0;
    for (int signal = executeOne(process.id(), 0); signal != 0 && signal != SIGSTOP;
         signal = executeOne(process.id(), signal == SIGTRAP ? 0 : signal)) {
        const Registers registers = kolvan::test::readRegisters(process.id());
        const auto memory = process.memory(registers.stackPointer(), stackEnd);
        const UnwoundStack stack = unwinder.unwind(registers, memory, space);
        const AddressSpace::Mapping* const mapping = space.find(registers.instruction());
        ASSERT_NE(nullptr, mapping);
        ++instructions[mapping->path];
        if (stack.end == End::Root && stack.addresses.back() == root) {
            ASSERT_EQ(0U, stack.byFramePointer);
        } else {
            // The last thing that the compiler's runtime does with an exception is to write the
            // handler's frame over its own: for some fifty instructions the stack is neither.
            ASSERT_NE(std::string::npos, mapping->path.find("libgcc_s"))
                << endName(stack.end) << " in " << mapping->path << " at " << std::hex
                << mapping->addressInObject(registers.instruction()).value_or(0);
            ++lost;
        }
    }

    EXPECT_LT(0U, instructions["[vdso]"]);
    EXPECT_LE(5U, instructions.size());
    EXPECT_GT(100U, lost);
}

}  // namespace
