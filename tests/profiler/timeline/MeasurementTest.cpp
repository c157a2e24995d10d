#include "companions/profiler/timeline/Measurement.h"

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace kolvan::profiler {
namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;  // as CPU time; times themselves are microseconds

class MeasurementTest : public testing::Test {
protected:
    /// Adds a reading of a process with one thread, which has used `cpuMilliseconds`.
    void add(std::uint64_t cpuMilliseconds, std::int64_t milliseconds) {
        ProcessReading reading;
        reading.cpuNanoseconds = cpuMilliseconds * kMillisecond;
        ThreadReading& thread = reading.threads.emplace_back();
        thread.id = 1;
        thread.name = "t";
        thread.state = 'R';
        thread.cpuNanoseconds = reading.cpuNanoseconds;
        measurement.add(reading, milliseconds * 1000);
    }

    /// The greatest value of any series of the counter `name` in the trace.
    double mostOf(const std::string& name) {
        trace.flush();
        rapidjson::Document document;
        document.Parse(kolvan::test::readFile(path).c_str());
        double most = -1;
        for (const auto& event : document["traceEvents"].GetArray()) {
            if (event["name"].GetString() == name) {
                for (const auto& series : event["args"].GetObject()) {
                    most = std::max(most, series.value.GetDouble());
                }
            }
        }
        return most;
    }

    const Figures& figures() const { return measurement.figures(); }

    kolvan::test::TemporaryDirectory directory;
    const std::string path = directory.entry("trace.json");
    TraceWriter trace{path, 1};
    Measurement measurement{trace, 2};
};

TEST_F(MeasurementTest, AverageAndMaximumAreInPercentOfOneProcessor) {
    add(1000, 0);
    add(1050, 100);
    add(1200, 200);

    EXPECT_TRUE(figures().cpuMeasured);
    EXPECT_DOUBLE_EQ(100, figures().cpuAverage);
    EXPECT_DOUBLE_EQ(150, figures().cpuMost);
    EXPECT_DOUBLE_EQ(150, figures().cpuNow);
}

TEST_F(MeasurementTest, ShortCommandHasNoFigure) {
    add(0, 0);
    measurement.closeCpu(17 * kMillisecond, 1000);

    EXPECT_FALSE(figures().cpuMeasured);
    EXPECT_EQ(0, figures().cpuAverage);
    EXPECT_EQ(0, figures().cpuMost);

    measurement.closeCpu(17 * kMillisecond, 39'999);
    EXPECT_FALSE(figures().cpuMeasured);
    measurement.closeCpu(20 * kMillisecond, 40'000);
    EXPECT_TRUE(figures().cpuMeasured);
    EXPECT_DOUBLE_EQ(50, figures().cpuAverage);
}

TEST_F(MeasurementTest, MaximumIsNeverBelowTheAverage) {
    add(0, 0);

    // No second reading came before the end, and with it no rate.
    measurement.closeCpu(45 * kMillisecond, 50'000);

    EXPECT_DOUBLE_EQ(90, figures().cpuAverage);
    EXPECT_DOUBLE_EQ(90, figures().cpuMost);
}

TEST_F(MeasurementTest, NoFigureExceedsTheProcessors) {
    add(0, 0);
    add(500, 100);
    measurement.closeCpu(1000 * kMillisecond, 110'000);

    EXPECT_DOUBLE_EQ(200, figures().cpuNow);
    EXPECT_DOUBLE_EQ(200, figures().cpuMost);
    EXPECT_DOUBLE_EQ(200, figures().cpuAverage);
    EXPECT_DOUBLE_EQ(200, mostOf("CPU %"));
    EXPECT_DOUBLE_EQ(100, mostOf("CPU % t (1)"));
}

}  // namespace
}  // namespace kolvan::profiler
