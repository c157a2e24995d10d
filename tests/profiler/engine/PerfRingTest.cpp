#include "companions/profiler/engine/PerfRing.h"

#include "companions/profiler/engine/PerfEvent.h"
#include "companions/profiler/engine/PerfRecord.h"
#include "tests/profiler/engine/RecordedEvents.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include <sys/prctl.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using Kind = RecordedEvent::Kind;
using profiler::FileDescriptor;
using profiler::PerfRing;

constexpr std::size_t kPage = 4096;

/// The names that this thread is given, through a ring.
class PerfRingTest : public testing::Test {
protected:
    PerfRingTest() {
        (void)::prctl(PR_GET_NAME, former.data());
        perf_event_attr description = profiler::describeOwner(4096);
        description.sample_type = profiler::kSampleType;
        description.sample_id_all = 1;
        description.comm = 1;
        description.sample_regs_user = profiler::kSampleRegisters;
        description.sample_stack_user = 8;
        description.exclude_callchain_user = 1;
        description.exclude_callchain_kernel = 1;
        constexpr int kAllProcessors = -1;
        event = profiler::openEvent(description, profiler::kThisThread, kAllProcessors);
        ring = event ? PerfRing::map(event.get(), kPage) : nullptr;
    }
    ~PerfRingTest() override { (void)::prctl(PR_SET_NAME, former.data()); }

    static void rename(const std::string& name) { (void)::prctl(PR_SET_NAME, name.c_str()); }

    std::array<char, 16> former{};
    FileDescriptor event;
    std::unique_ptr<PerfRing> ring;
};

}  // namespace

TEST_F(PerfRingTest, RecordsAroundTheEndAreInOnePiece) {
    ASSERT_NE(nullptr, ring) << "perf_event_open is refused here";
    // Of several sizes, so that the ring's end is at every place of a record.
    std::size_t consumed = 0;
    std::size_t around = 0;
    for (int i = 0; i < 5000; ++i) {
        const std::string name =
            std::to_string(i) + std::string(static_cast<std::size_t>(i % 9), 'x');
        rename(name);
        RecordedEvents events;
        const perf_event_header* const record = ring->peek();
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(record, ring->peek());
        around += consumed % kPage + record->size > kPage ? 1U : 0U;
        consumed += record->size;
        profiler::deliverRecord(*record, 1, events);
        ring->consume();

        ASSERT_EQ(1U, events.count(Kind::Name));
        EXPECT_EQ(name, events.all()[0].text);
        EXPECT_EQ(::getpid(), events.all()[0].process);
        EXPECT_EQ(nullptr, ring->peek());
    }
    EXPECT_LT(20U, around);
}

TEST_F(PerfRingTest, AFullRingKeepsWhatItHasAndTellsOfTheLoss) {
    ASSERT_NE(nullptr, ring) << "perf_event_open is refused here";
    constexpr int kNames = 1000;
    for (int i = 0; i < kNames; ++i) {
        rename(std::to_string(i));
    }
    int kept = 0;
    RecordedEvents events;
    for (const perf_event_header* record = ring->peek(); record != nullptr; record = ring->peek()) {
        profiler::deliverRecord(*record, 1, events);
        ring->consume();
        ++kept;
    }
    rename("after");
    std::uint64_t lost = 0;
    for (const perf_event_header* record = ring->peek(); record != nullptr; record = ring->peek()) {
        lost += profiler::lossOf(*record);
        profiler::deliverRecord(*record, 1, events);
        ring->consume();
    }

    EXPECT_LT(10, kept);
    EXPECT_EQ(static_cast<std::uint64_t>(kNames - kept), lost);
    EXPECT_EQ("0", events.all().front().text);
    EXPECT_EQ("after", events.all().back().text);
}

TEST_F(PerfRingTest, ASizeThatIsNoPowerOfTwoIsRefused) {
    ASSERT_TRUE(event) << "perf_event_open is refused here";
    ring.reset();

    EXPECT_EQ(nullptr, PerfRing::map(event.get(), 3 * kPage));
    EXPECT_NE(nullptr, PerfRing::map(event.get(), 2 * kPage));
}

}  // namespace kolvan::test
