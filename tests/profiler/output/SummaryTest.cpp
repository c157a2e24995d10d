#include "companions/profiler/output/Summary.h"

#include "companions/profiler/output/ProfileTable.h"
#include "tests/profiler/output/SampleProfile.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>

namespace kolvan::profiler {
namespace {

Summary sampleSummary() {
    Summary summary;
    summary.target = "sh -c \"\xFF\"\x1B";
    summary.pid = 42;
    summary.reason = "target-ended";
    summary.reasonText = "the target has ended";
    summary.targetEnding = "ended with exit status 3";
    summary.frequency = 20;
    summary.seconds = 1.23456;
    summary.missedTicks = 1;
    summary.figures.samples = 24;
    summary.figures.cpuMeasured = true;
    summary.figures.cpuAverage = 99.96;
    summary.figures.cpuMost = 150.25;
    summary.figures.cpu.add(50);
    summary.figures.cpu.add(150.25);
    summary.figures.residentMost = 2048;
    summary.figures.threadsMost = 2;
    summary.tracePath = "/r/data.0/collection.trace.json";
    return summary;
}

TEST(SummaryTest, JsonHoldsTheFiguresRounded) {
    EXPECT_EQ(R"({
  "target": "sh -c \")"
              "\xEF\xBF\xBD"
              R"(\"\u001B",
  "pid": 42,
  "reason": "target-ended",
  "targetEnding": "ended with exit status 3",
  "frequency": 20,
  "durationSeconds": 1.235,
  "samples": 24,
  "missedTicks": 1,
  "cpuPercentAverage": 100.0,
  "cpuPercentMax": 150.2,
  "cpuPercentSeries": [50.0, 150.2],
  "valuesPerPoint": 1,
  "residentMaxKiB": 2048,
  "threadsMax": 2,
  "trace": "/r/data.0/collection.trace.json"
}
)",
              summaryJson(sampleSummary()));
}

TEST(SummaryTest, JsonHoldsTheProfileInShort) {
    Summary summary = sampleSummary();
    summary.profile =
        summarize(test::sampleProfile(), test::sampleCoverage(), "/r/data.0/profile.pb.gz");

    rapidjson::Document document;
    document.Parse(summaryJson(summary).c_str());

    ASSERT_FALSE(document.HasParseError());
    const auto& profile = document["profile"];
    EXPECT_STREQ("/r/data.0/profile.pb.gz", profile["file"].GetString());
    EXPECT_STREQ("cpu", profile["kind"].GetString());
    EXPECT_STREQ("perf", profile["engine"].GetString());
    EXPECT_EQ(1'000'000U, profile["period"].GetUint64());
    EXPECT_EQ(1000U, profile["samples"].GetUint64());
    EXPECT_EQ(2U, profile["lost"].GetUint64());
    EXPECT_EQ(1.0, profile["sampledSeconds"].GetDouble());
    EXPECT_EQ(1.01, profile["accountedSeconds"].GetDouble());
    EXPECT_EQ(0.9901, profile["coverage"].GetDouble());
    EXPECT_EQ(0.98, profile["rootShare"].GetDouble());
    EXPECT_EQ(0.95, profile["namedShare"].GetDouble());
    ASSERT_EQ(1U, profile["limits"].Size());
    EXPECT_STREQ("The kernel's part of the stacks is not shown to this user.",
                 profile["limits"][0].GetString());
    ASSERT_EQ(7U, profile["top"].Size());
    const auto& first = profile["top"][0];
    EXPECT_STREQ("mix", first["function"].GetString());
    EXPECT_STREQ("/opt/app/app", first["module"].GetString());
    EXPECT_EQ(720'000'000U, first["self"].GetUint64());
    EXPECT_EQ(720'000'000U, first["total"].GetUint64());
    EXPECT_EQ(0.72, first["selfShare"].GetDouble());
    EXPECT_EQ(0.98, profile["top"][4]["totalShare"].GetDouble());
    ASSERT_EQ(3U, profile["paths"].Size());
    const auto& path = profile["paths"][1];
    EXPECT_EQ(150'000'000U, path["self"].GetUint64());
    EXPECT_EQ(0.15, path["selfShare"].GetDouble());
    EXPECT_TRUE(path["complete"].GetBool());
    ASSERT_EQ(3U, path["calls"].Size());
    EXPECT_STREQ("_start", path["calls"][0]["function"].GetString());
    EXPECT_STREQ("/opt/app/app", path["calls"][0]["module"].GetString());
    EXPECT_EQ(980'000'000U, path["calls"][0]["total"].GetUint64());
    EXPECT_EQ(0.15, path["calls"][2]["totalShare"].GetDouble());
}

TEST(SummaryTest, WaitingIsComparedWithNothing) {
    Summary summary = sampleSummary();
    Profile profile = test::sampleProfile();
    profile.kind = Profile::Kind::Wait;
    summary.profile = summarize(profile, test::sampleCoverage(), "");

    rapidjson::Document document;
    document.Parse(summaryJson(summary).c_str());

    EXPECT_STREQ("wait", document["profile"]["kind"].GetString());
    EXPECT_TRUE(document["profile"]["accountedSeconds"].IsNull());
    EXPECT_TRUE(document["profile"]["coverage"].IsNull());
}

TEST(SummaryTest, TextShowsTheFiguresAndThenTheProfile) {
    Summary summary = sampleSummary();
    const std::string figures =
        "Target:    sh -c \"\xEF\xBF\xBD\"? (process 42)\n"
        "Ended:     the target has ended, the command ended with exit status 3\n"
        "Duration:  1.23 s, 24 samples at 20 Hz, 1 tick missed\n"
        "CPU:       100.0 % on average, 150.2 % at most\n"
        "Memory:    2.0 MiB resident at most\n"
        "Threads:   2 at most\n"
        "Trace:     /r/data.0/collection.trace.json\n";

    EXPECT_EQ(figures, summaryText(summary));
    summary.profile = summarize(test::sampleProfile(), test::sampleCoverage(), "/r/p.pb.gz");
    EXPECT_EQ(figures + "Profile:   /r/p.pb.gz\n\n" + profileTable(*summary.profile),
              summaryText(summary));
}

TEST(SummaryTest, ShortCommandSaysThatItWasTooShortForAFigure) {
    Summary summary = sampleSummary();
    summary.figures = {};

    rapidjson::Document document;
    document.Parse(summaryJson(summary).c_str());

    EXPECT_TRUE(document["cpuPercentAverage"].IsNull());
    EXPECT_TRUE(document["cpuPercentMax"].IsNull());
    EXPECT_EQ(0U, document["cpuPercentSeries"].Size());
    EXPECT_NE(std::string::npos, summaryText(summary).find("CPU:       too short for a figure\n"));
}

}  // namespace
}  // namespace kolvan::profiler
