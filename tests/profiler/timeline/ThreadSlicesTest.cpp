#include "companions/profiler/timeline/ThreadSlices.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kolvan::profiler {
namespace {

struct Slice {
    pid_t thread = 0;
    std::string state;
    std::int64_t begin = 0;
    std::int64_t length = 0;

    bool operator==(const Slice&) const = default;
};

void PrintTo(const Slice& slice, std::ostream* stream) {
    *stream << slice.thread << " " << slice.state << " " << slice.begin << "+" << slice.length;
}

class ThreadSlicesTest : public testing::Test {
protected:
    /// What the trace holds, in the order of its events.
    std::vector<Slice> drawn() {
        trace.flush();
        rapidjson::Document document;
        document.Parse(kolvan::test::readFile(path).c_str());
        std::vector<Slice> found;
        for (const auto& event : document["traceEvents"].GetArray()) {
            if (std::string("X") == event["ph"].GetString()) {
                found.push_back({event["tid"].GetInt(), event["name"].GetString(),
                                 event["ts"].GetInt64(), event["dur"].GetInt64()});
            }
        }
        return found;
    }

    kolvan::test::TemporaryDirectory directory;
    const std::string path = directory.entry("trace.json");
    TraceWriter trace{path, 1};
    ThreadSlices slices{trace};
};

TEST_F(ThreadSlicesTest, EachStateLastsUpToTheNextOne) {
    slices.change(7, "runnable", 10);
    slices.change(7, "running", 15);
    slices.change(8, "running", 20);
    slices.change(7, "sleeping", 40);
    slices.finish(100);

    const std::vector<Slice> expected = {{7, "runnable", 10, 5},
                                         {7, "running", 15, 25},
                                         {7, "sleeping", 40, 60},
                                         {8, "running", 20, 80}};
    EXPECT_EQ(expected, drawn());
}

TEST_F(ThreadSlicesTest, StateThatIsToldAgainGoesOn) {
    slices.change(7, "running", 10);
    slices.change(7, "running", 20);
    slices.change(7, "sleeping", 30);

    EXPECT_EQ((std::vector<Slice>{{7, "running", 10, 20}}), drawn());
}

TEST_F(ThreadSlicesTest, ThreadThatEndsHasItsLastSliceAndNoOther) {
    slices.change(7, "running", 10);
    slices.end(7, 20);
    slices.end(7, 30);
    slices.end(8, 30);
    slices.finish(100);

    EXPECT_EQ((std::vector<Slice>{{7, "running", 10, 10}}), drawn());
}

TEST_F(ThreadSlicesTest, AfterManySlicesTheShortestBelongToTheOneBehindThem) {
    std::int64_t time = 0;
    slices.change(7, "running", time);
    for (std::size_t drawnSoFar = 0; drawnSoFar < ThreadSlices::kManySlices; ++drawnSoFar) {
        time += 99;
        slices.change(7, drawnSoFar % 2 == 0 ? "sleeping" : "running", time);
    }
    ASSERT_EQ(ThreadSlices::kManySlices, drawn().size());

    slices.change(7, "sleeping", time + 99);
    EXPECT_EQ(ThreadSlices::kManySlices, drawn().size());
    slices.change(7, "running", time + 199);

    const std::vector<Slice> all = drawn();
    ASSERT_EQ(ThreadSlices::kManySlices + 1, all.size());
    EXPECT_EQ((Slice{7, "sleeping", time, 199}), all.back());
}

}  // namespace
}  // namespace kolvan::profiler
