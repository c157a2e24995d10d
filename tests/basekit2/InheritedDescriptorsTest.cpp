#include "basekit2/process/IProcess.h"
#include "tests/basekit2/ProcessSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::test {

using basekit2::result_t;
using basekit2::UniqueFd;

namespace {

/// Starts a child that reports its descriptors and checks them, and that each pipe is the right
/// one.
void expectCleanChild() {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"report", "1", "descriptors", "text", "2", "error",
                                               "text", "3", "feedback"}));

    EXPECT_EQ(0, run.wait());
    EXPECT_EQ(kCleanDescriptors, withNamedPipes(run.out->text()));
    EXPECT_EQ("error", run.err->text());
    EXPECT_EQ("feedback", run.feedback->text());
}

/// Opens descriptors that children would inherit, under many numbers, all the time.
class CarelessThreads {
public:
    CarelessThreads() {
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([this] {
                while (!enough) {
                    openAndClose();
                }
            });
        }
    }
    ~CarelessThreads() {
        enough = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    CarelessThreads(const CarelessThreads&) = delete;
    CarelessThreads& operator=(const CarelessThreads&) = delete;

private:
    static void openAndClose() {
        std::vector<UniqueFd> open;
        for (int i = 0; i < 5; ++i) {
            open.emplace_back(::open("/dev/zero", O_RDWR));
        }
        open.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));
        for (const int lowest : {50, 300, 900}) {
            open.emplace_back(::fcntl(open.front().get(), F_DUPFD, lowest));
        }
    }

    std::atomic<bool> enough{false};
    std::vector<std::thread> threads;
};

/// Replaces one of our descriptors 0, 1 and 2 while it lives.
class ReplacedDescriptor {
public:
    ReplacedDescriptor(int number, int replacement)
        : replaced(number), original(::fcntl(number, F_DUPFD_CLOEXEC, 3)) {
        (void)::dup2(replacement, replaced);
    }
    ~ReplacedDescriptor() { (void)::dup2(original.get(), replaced); }

    ReplacedDescriptor(const ReplacedDescriptor&) = delete;
    ReplacedDescriptor& operator=(const ReplacedDescriptor&) = delete;

private:
    int replaced;
    UniqueFd original;
};

class InheritedDescriptorsTest : public AuditedProcessTest {};

}  // namespace

TEST_F(InheritedDescriptorsTest, ChildHoldsTheNullDeviceAndItsThreePipesOnly) {
    expectCleanChild();
}

TEST_F(InheritedDescriptorsTest, StandardInputIsAtItsEnd) {
    EXPECT_EQ("0\n", outputOf({"report", "1", "input"}));
}

TEST_F(InheritedDescriptorsTest, OurOwnStandardInputIsNotTheChilds) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    ASSERT_EQ(5, ::write(writeEnd.get(), "typed", 5));
    writeEnd.reset();
    const ReplacedDescriptor input(0, readEnd.get());

    EXPECT_EQ("0\n", outputOf({"report", "1", "input"}));
    expectCleanChild();
    char left[5];
    EXPECT_EQ(5, ::read(0, left, sizeof(left)));
}

TEST_F(InheritedDescriptorsTest, DescriptorsThatWeLeftOpenForChildrenAreClosed) {
    std::vector<UniqueFd> careless;
    for (int i = 0; i < 40; ++i) {
        careless.emplace_back(::open("/dev/zero", O_RDWR));
    }
    careless.emplace_back(::fcntl(careless.front().get(), F_DUPFD, 1000));
    careless.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0));

    expectCleanChild();
}

TEST_F(InheritedDescriptorsTest, DescriptorsAboveTheLimitAreClosedToo) {
    const UniqueFd zero(::open("/dev/zero", O_RDWR));
    const UniqueFd high(::fcntl(zero.get(), F_DUPFD, 900));
    ASSERT_LE(900, high.get());
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit former = limit;
    limit.rlim_cur = 64;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));

    expectCleanChild();

    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &former));
}

TEST_F(InheritedDescriptorsTest, PipesOfOtherChildrenAreNotInherited) {
    std::vector<ChildRun> prepared(4);

    expectCleanChild();

    for (ChildRun& run : prepared) {
        ASSERT_EQ(result_t::no_error(), run.start({"report", "1", "descriptors"}));
    }
    for (ChildRun& run : prepared) {
        EXPECT_EQ(0, run.wait());
        EXPECT_EQ(kCleanDescriptors, withNamedPipes(run.out->text()));
    }
}

TEST_F(InheritedDescriptorsTest, OurEndsAreClosedInProgramsThatOthersStart) {
    const auto before = openDescriptors();
    const ChildRun prepared;

    for (const auto& [number, target] : openDescriptors()) {
        if (before.count(number) == 0) {
            EXPECT_EQ(FD_CLOEXEC, ::fcntl(number, F_GETFD)) << target;
        }
    }
    EXPECT_LT(before.size(), openDescriptors().size());
}

TEST_F(InheritedDescriptorsTest, NumbersAreRightWhicheverOnesTheParentHasFree) {
    constexpr int kFirst = 3;
    constexpr unsigned kPatterns = 128;
    for (unsigned pattern = 0; pattern < kPatterns; ++pattern) {
        // The numbers just above our standard streams are taken or free in every combination, so
        // that the ends of the pipes get each other's numbers in the child. What takes them would
        // be inherited.
        std::vector<UniqueFd> all;
        for (int number = 0; number < 12; ++number) {
            all.emplace_back(::open("/dev/zero", O_RDWR));
        }
        for (UniqueFd& descriptor : all) {
            const int bit = descriptor.get() - kFirst;
            if (bit >= 0 && bit < 7 && (pattern >> bit & 1U) == 0) {
                descriptor.reset();
            }
        }

        SCOPED_TRACE(pattern);
        expectCleanChild();
    }
}

TEST_F(InheritedDescriptorsTest, OtherThreadsMayOpenDescriptorsAtAnyMoment) {
    const CarelessThreads careless;
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        expectCleanChild();
    }
}

TEST_F(InheritedDescriptorsTest, ChildrenStartedAtOnceDoNotGetEachOthersPipes) {
    const CarelessThreads careless;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 10; ++round) {
                expectCleanChild();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(InheritedDescriptorsTest, ChildWithSeveralAdditionalPipesHoldsThoseToo) {
    ChildRun run;
    const auto further = basekit2::make_ref_counted<RecordingReader>();
    std::string number;
    ASSERT_EQ(result_t::no_error(), run.process->openOutputPipe(further, number));
    ASSERT_EQ("4", number);
    const UniqueFd careless(::open("/dev/zero", O_RDWR));
    ASSERT_EQ(result_t::no_error(), run.start({"report", "1", "descriptors"}));

    EXPECT_EQ(0, run.wait());
    EXPECT_EQ(kCleanDescriptors + "4 w pipe D\n", withNamedPipes(run.out->text()));
}

}  // namespace kolvan::test
