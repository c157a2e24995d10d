#include "companions/profiler/engine/PerfRecord.h"

#include "companions/profiler/engine/PerfEvent.h"
#include "tests/profiler/engine/RecordedEvents.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/sysmacros.h>

namespace kolvan::test {

namespace {

using Kind = RecordedEvent::Kind;

constexpr std::uint64_t kPeriod = 1'001'001;

/// A record as the kernel writes it, piece by piece. It lies at the end of its memory, so that a
/// sanitizer notices who reads on.
class Record {
public:
    Record(std::uint32_t type, std::uint16_t misc = 0) {
        perf_event_header header{};
        header.type = type;
        header.misc = misc;
        add(header);
    }

    template <typename Field>
    Record& add(const Field& field) {
        const std::size_t before = bytes.size();
        bytes.resize(before + sizeof field);
        std::memcpy(bytes.data() + before, &field, sizeof field);
        return *this;
    }

    Record& text(const std::string& characters) {
        const std::size_t padded = (characters.size() + 8) / 8 * 8;
        const std::size_t before = bytes.size();
        bytes.resize(before + padded);
        std::memcpy(bytes.data() + before, characters.data(), characters.size());
        return *this;
    }

    /// What the kernel appends to all records but samples: process, thread, time.
    Record& trailer(std::uint32_t process, std::uint32_t thread, std::uint64_t time) {
        return add(process).add(thread).add(time);
    }

    Record& cut(std::size_t size) {
        bytes.resize(size);
        return *this;
    }

    const perf_event_header& done() {
        bytes.shrink_to_fit();
        auto* const header = reinterpret_cast<perf_event_header*>(bytes.data());
        header->size = static_cast<std::uint16_t>(bytes.size());
        return *header;
    }

    std::size_t size() const { return bytes.size(); }

private:
    std::vector<std::byte> bytes;
};

RecordedEvents delivered(const perf_event_header& record) {
    RecordedEvents events;
    profiler::deliverRecord(record, kPeriod, events);
    return events;
}

Record sampleStart() {
    Record record(PERF_RECORD_SAMPLE);
    record.add(std::uint64_t{0x1234}).add(std::uint32_t{10}).add(std::uint32_t{11});
    record.add(std::uint64_t{5000});
    return record;
}

/// A sample of a thread in the kernel, called from its program.
Record wholeSample(std::uint64_t abi = PERF_SAMPLE_REGS_ABI_64) {
    Record record = sampleStart();
    record.add(std::uint64_t{3}).add(static_cast<std::uint64_t>(PERF_CONTEXT_KERNEL));
    record.add(std::uint64_t{0xFFFFFFFF81000000}).add(std::uint64_t{0xFFFFFFFF81000010});
    record.add(abi);
    for (std::uint64_t i = 0; i < 17; ++i) {
        record.add(100 + i);
    }
    record.add(std::uint64_t{16}).add(std::uint64_t{1}).add(std::uint64_t{2});
    record.add(std::uint64_t{8});  // of the 16 bytes of room
    return record;
}

}  // namespace

TEST(PerfRecordTest, ASampleIsUnderstood) {
    Record record = wholeSample();

    const auto samples = delivered(record.done()).of(Kind::Sample);

    ASSERT_EQ(1U, samples.size());
    EXPECT_EQ(10, samples[0].process);
    EXPECT_EQ(11, samples[0].thread);
    EXPECT_EQ(5000U, samples[0].time);
    EXPECT_EQ(kPeriod, samples[0].nanoseconds);
    EXPECT_EQ((std::vector<std::uint64_t>{0xFFFFFFFF81000000, 0xFFFFFFFF81000010}),
              samples[0].kernelAddresses);
    EXPECT_EQ(8U, samples[0].stackBytes);
    // By DWARF's numbers: ax dx cx bx si di bp sp, r8 to r15, ip; the kernel's order is
    // ax bx cx dx si di bp sp ip, r8 to r15.
    const std::array<std::uint64_t, 17> expected{100, 103, 102, 101, 104, 105, 106, 107, 109,
                                                 110, 111, 112, 113, 114, 115, 116, 108};
    EXPECT_EQ(expected, samples[0].registers.values);
    EXPECT_EQ(5000U, profiler::timeOf(record.done()));
    EXPECT_EQ(10, profiler::processOf(record.done()));
}

TEST(PerfRecordTest, RegistersOfA32BitProgramAreNone) {
    Record record = wholeSample(PERF_SAMPLE_REGS_ABI_32);

    const auto samples = delivered(record.done()).of(Kind::Sample);

    ASSERT_EQ(1U, samples.size());
    EXPECT_FALSE(samples[0].hasRegisters);
    EXPECT_EQ(8U, samples[0].stackBytes);
}

TEST(PerfRecordTest, AKernelThreadHasNeitherRegistersNorStack) {
    Record record = sampleStart();
    record.add(std::uint64_t{0});
    record.add(static_cast<std::uint64_t>(PERF_SAMPLE_REGS_ABI_NONE)).add(std::uint64_t{0});

    const auto samples = delivered(record.done()).of(Kind::Sample);

    ASSERT_EQ(1U, samples.size());
    EXPECT_FALSE(samples[0].hasRegisters);
    EXPECT_TRUE(samples[0].kernelAddresses.empty());
    EXPECT_EQ(0U, samples[0].stackBytes);
}

TEST(PerfRecordTest, ADeepKernelStackIsKeptWhole) {
    constexpr std::uint64_t kDepth = 3000;  // kernel.perf_event_max_stack may be raised
    Record record = sampleStart();
    record.add(kDepth);
    for (std::uint64_t i = 0; i < kDepth; ++i) {
        record.add(0xFFFFFFFF81000000 + i);
    }
    record.add(static_cast<std::uint64_t>(PERF_SAMPLE_REGS_ABI_NONE)).add(std::uint64_t{0});

    const auto samples = delivered(record.done()).of(Kind::Sample);

    ASSERT_EQ(1U, samples.size());
    EXPECT_EQ(kDepth, samples[0].kernelAddresses.size());
}

TEST(PerfRecordTest, AMappingOfCodeIsUnderstood) {
    Record record(PERF_RECORD_MMAP2);
    record.add(std::uint32_t{10}).add(std::uint32_t{11}).add(std::uint64_t{0x1000});
    record.add(std::uint64_t{0x2000}).add(std::uint64_t{0x3000});
    record.add(std::uint32_t{8}).add(std::uint32_t{1}).add(std::uint64_t{77}).add(std::uint64_t{0});
    record.add(std::uint32_t{PROT_READ | PROT_EXEC}).add(std::uint32_t{0});
    record.text("/a path/of eight").trailer(10, 11, 6000);

    const auto mappings = delivered(record.done()).of(Kind::Mapping);

    ASSERT_EQ(1U, mappings.size());
    EXPECT_EQ(10, mappings[0].process);
    EXPECT_EQ(0x1000U, mappings[0].begin);
    EXPECT_EQ(0x3000U, mappings[0].end);
    EXPECT_EQ("/a path/of eight", mappings[0].text);
    EXPECT_EQ(6000U, profiler::timeOf(record.done()));
}

TEST(PerfRecordTest, AMappingOfDataIsPassedOver) {
    Record record(PERF_RECORD_MMAP2);
    record.add(std::uint32_t{10}).add(std::uint32_t{11}).add(std::uint64_t{0x1000});
    record.add(std::uint64_t{0x2000}).add(std::uint64_t{0x3000});
    record.add(std::uint32_t{8}).add(std::uint32_t{1}).add(std::uint64_t{77}).add(std::uint64_t{0});
    record.add(std::uint32_t{PROT_READ}).add(std::uint32_t{0}).text("/data").trailer(10, 11, 1);

    EXPECT_TRUE(delivered(record.done()).all().empty());
}

TEST(PerfRecordTest, StartsEndsNamesAndTurnsAreUnderstood) {
    Record start(PERF_RECORD_FORK);
    start.add(std::uint32_t{20}).add(std::uint32_t{10}).add(std::uint32_t{21});
    start.add(std::uint32_t{11}).add(std::uint64_t{1}).trailer(10, 11, 1);
    Record end(PERF_RECORD_EXIT);
    end.add(std::uint32_t{20}).add(std::uint32_t{10}).add(std::uint32_t{21});
    end.add(std::uint32_t{11}).add(std::uint64_t{2}).trailer(20, 21, 2);
    Record name(PERF_RECORD_COMM);
    name.add(std::uint32_t{20}).add(std::uint32_t{21}).text("new (name)").trailer(20, 21, 3);
    Record exec(PERF_RECORD_COMM, PERF_RECORD_MISC_COMM_EXEC);
    exec.add(std::uint32_t{20}).add(std::uint32_t{20}).text("program").trailer(20, 20, 4);

    const auto starts = delivered(start.done()).all();
    const auto ends = delivered(end.done()).all();
    const auto names = delivered(name.done()).all();
    const auto execs = delivered(exec.done()).all();

    ASSERT_EQ(1U, starts.size());
    EXPECT_EQ(20, starts[0].process);
    EXPECT_EQ(21, starts[0].thread);
    EXPECT_EQ(10, starts[0].parent);
    EXPECT_EQ(21, profiler::startedThreadOf(start.done()));
    ASSERT_EQ(1U, ends.size());
    EXPECT_EQ(Kind::End, ends[0].kind);
    EXPECT_EQ(21, ends[0].thread);
    ASSERT_EQ(1U, names.size());
    EXPECT_EQ("new (name)", names[0].text);
    ASSERT_EQ(2U, execs.size());
    EXPECT_EQ(Kind::Exec, execs[0].kind);
    EXPECT_EQ("program", execs[1].text);
}

TEST(PerfRecordTest, TurnsTellWhetherTheProcessorWasGivenUpOrTaken) {
    Record in(PERF_RECORD_SWITCH);
    Record out(PERF_RECORD_SWITCH, PERF_RECORD_MISC_SWITCH_OUT);
    Record taken(PERF_RECORD_SWITCH,
                 PERF_RECORD_MISC_SWITCH_OUT | PERF_RECORD_MISC_SWITCH_OUT_PREEMPT);
    in.trailer(10, 11, 1);
    out.trailer(10, 11, 2);
    taken.trailer(10, 11, 3);

    EXPECT_EQ(profiler::ThreadTurn::Runs, delivered(in.done()).all().at(0).turn);
    EXPECT_EQ(profiler::ThreadTurn::Waits, delivered(out.done()).all().at(0).turn);
    EXPECT_EQ(profiler::ThreadTurn::Runnable, delivered(taken.done()).all().at(0).turn);
    EXPECT_EQ(3U, delivered(taken.done()).all().at(0).time);
}

TEST(PerfRecordTest, LossesAreCountedAndOtherRecordsPassedOver) {
    Record lost(PERF_RECORD_LOST);
    lost.add(std::uint64_t{99}).add(std::uint64_t{5}).trailer(10, 11, 1);
    Record lostSamples(PERF_RECORD_LOST_SAMPLES);
    lostSamples.add(std::uint64_t{7}).trailer(10, 11, 1);
    Record unknown(4711);
    unknown.add(std::uint64_t{1}).trailer(10, 11, 8);

    EXPECT_EQ(5U, profiler::lossOf(lost.done()));
    EXPECT_EQ(7U, profiler::lossOf(lostSamples.done()));
    EXPECT_EQ(0U, profiler::lossOf(unknown.done()));
    EXPECT_TRUE(delivered(unknown.done()).all().empty());
    EXPECT_EQ(8U, profiler::timeOf(unknown.done()));
}

TEST(PerfRecordTest, SizesThatLieAreNotBelieved) {
    const std::uint64_t huge = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t lie : {huge, huge / 8, huge / 8 + 1, std::uint64_t{100'000}}) {
        Record chain = sampleStart();
        chain.add(lie).add(std::uint64_t{PERF_SAMPLE_REGS_ABI_64});
        Record stack = sampleStart();
        stack.add(std::uint64_t{0}).add(static_cast<std::uint64_t>(PERF_SAMPLE_REGS_ABI_NONE));
        stack.add(lie).add(std::uint64_t{1});
        Record copied = sampleStart();
        copied.add(std::uint64_t{0}).add(static_cast<std::uint64_t>(PERF_SAMPLE_REGS_ABI_NONE));
        copied.add(std::uint64_t{8}).add(std::uint64_t{1}).add(lie);

        for (Record* const record : {&chain, &stack, &copied}) {
            const auto samples = delivered(record->done()).of(Kind::Sample);
            ASSERT_EQ(1U, samples.size());
            EXPECT_TRUE(samples[0].kernelAddresses.empty());
            EXPECT_FALSE(samples[0].hasRegisters);
            EXPECT_EQ(0U, samples[0].stackBytes);
        }
    }
}

TEST(PerfRecordTest, RecordsThatAreCutAnywhereAreSurvived) {
    for (std::size_t size = sizeof(perf_event_header); size < wholeSample().size(); ++size) {
        for (const std::uint32_t type :
             {PERF_RECORD_SAMPLE, PERF_RECORD_MMAP2, PERF_RECORD_COMM, PERF_RECORD_FORK,
              PERF_RECORD_EXIT, PERF_RECORD_SWITCH, PERF_RECORD_LOST}) {
            Record record = wholeSample();
            auto header = record.cut(size).done();
            header.type = type;
            Record whole = wholeSample();
            std::memcpy(const_cast<perf_event_header*>(&whole.done()), &header, sizeof header);
            const perf_event_header& cut = whole.cut(size).done();

            (void)profiler::timeOf(cut);
            (void)profiler::processOf(cut);
            (void)profiler::lossOf(cut);
            EXPECT_GE(2U, delivered(cut).all().size());
        }
    }
}

TEST(PerfRecordTest, GarbageIsSurvived) {
    std::mt19937_64 random(4711);
    for (int round = 0; round < 20'000; ++round) {
        Record record(static_cast<std::uint32_t>(random() % 20));
        const std::size_t words = random() % 40;
        for (std::size_t i = 0; i < words; ++i) {
            record.add(random() % 3 == 0 ? random() : random() % 20);
        }

        EXPECT_GE(2U, delivered(record.done()).all().size());
    }
}

}  // namespace kolvan::test
