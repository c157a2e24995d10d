// What leaves the profiler while a collection runs and afterwards: the feedback, the timeline, and
// nothing of what stands on the stacks.

#include "tests/profiler/truth/TruthTest.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class ProfileOutputTest : public TruthTest {
protected:
    /// Collects a command until the feedback has told `text` so many times, then ends it.
    const Program& collectUntil(const Arguments& mode, const std::string& text, int times) {
        Arguments arguments = options({"--"});
        const Arguments command = fixture(mode);
        arguments.insert(arguments.end(), command.begin(), command.end());
        collector = std::make_unique<Program>(arguments);
        collector->waitFor(3, text, times);
        collector->signal(SIGTERM);
        EXPECT_EQ(5, collector->finish()) << collector->errors();
        return *collector;
    }

    std::unique_ptr<Program> collector;
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileOutputTest, testing::Values("perf", "ptrace"), nameOfEngine);

/// The lines of `text` that begin with `begin`.
std::vector<std::string> linesWith(const std::string& begin, const std::string& text) {
    std::vector<std::string> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(begin)) {
            found.push_back(line);
        }
    }
    return found;
}

/// The attribute of an element, as a number.
/// @throws std::runtime_error when there is none
double attribute(const std::string& name, const std::string& element) {
    const std::size_t at = element.find(" " + name + "=\"");
    if (at == std::string::npos) {
        throw std::runtime_error("no " + name + " in: " + element);
    }
    return std::stod(element.substr(at + name.size() + 3));
}

TEST_P(ProfileOutputTest, FeedbackTellsRateCoverageAndTheHottestFunction) {
    const Program& ended = collectUntil({"forever"}, "truth::forever", 3);

    const auto lines = linesWith("<progress ", ended.feedback());
    const std::string& last = lines.back();
    const std::string& before = lines.at(lines.size() - 2);
    const double passed = attribute("elapsed", last) - attribute("elapsed", before);
    const double added = attribute("stacks", last) - attribute("stacks", before);
    // Seconds are told with one digit behind the point, of two moments; rates with none.
    EXPECT_GE(attribute("rate", last) + 1, added / (passed + 0.1));
    EXPECT_LE(attribute("rate", last) - 1, added / (passed - 0.1));
    EXPECT_LT(0, attribute("coverage", last));
    EXPECT_GE(101, attribute("coverage", last));
}

TEST_P(ProfileOutputTest, FeedbackNamesTheEngineAndEachOfItsLimitsOnce) {
    const Program& ended = collectUntil({"forever"}, "<progress ", 2);

    const auto starts = linesWith("<collection state=\"started\"", ended.feedback());
    ASSERT_EQ(1U, starts.size());
    EXPECT_NE(std::string::npos, starts[0].find(std::string(" engine=\"") + GetParam() + "\""));
    std::vector<std::string> expected;
    const rapidjson::Document found = summary();
    for (const auto& limit : found["profile"]["limits"].GetArray()) {
        expected.push_back(std::string("<limit text=\"") + limit.GetString() + "\"/>");
    }
    EXPECT_EQ(expected, linesWith("<limit ", ended.feedback()));
}

TEST_P(ProfileOutputTest, TimelineTellsWhenAThreadRunsAndWhenItWaits) {
    collect({"lock"});

    rapidjson::Document trace;
    const std::string text = readFile(resultFile("collection.trace.json"));
    trace.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    ASSERT_FALSE(trace.HasParseError());
    std::map<int, std::string> names;
    std::map<std::string, std::map<std::string, std::int64_t>> times;  // of threads, by state
    for (const auto& event : trace["traceEvents"].GetArray()) {
        const std::string phase = event["ph"].GetString();
        if (phase == "M" && event["name"] == "thread_name") {
            names[event["tid"].GetInt()] = event["args"]["name"].GetString();
        }
    }
    for (const auto& event : trace["traceEvents"].GetArray()) {
        if (std::string("X") == event["ph"].GetString()) {
            times[names[event["tid"].GetInt()]][event["name"].GetString()] +=
                event["dur"].GetInt64();
        }
    }
    EXPECT_GT(times["holder"]["running"], times["holder"]["sleeping"]);
    EXPECT_GT(times["waiter"]["sleeping"], times["waiter"]["running"]);
}

TEST_P(ProfileOutputTest, WorkOfAShellsBackgroundChildCounts) {
    const Program& ended = collectCommand({"sh", "-c", "\"$0\" hot & wait", KOLVAN_TRUTH_FIXTURE});

    const auto told = static_cast<double>(numberBehind("hotFunction", ended.output()) +
                                          numberBehind("otherFunction", ended.output()));
    const rapidjson::Document found = summary();
    const double used =
        found["cpuPercentAverage"].GetDouble() / 100 * found["durationSeconds"].GetDouble() * 1e9;
    EXPECT_GE(used, 0.9 * told);
}

TEST_P(ProfileOutputTest, NothingThatStandsOnAStackIsInTheResults) {
    // The environment stands at the top of the first thread's stack, within reach of its copies.
    const std::string secret = "password-" + std::to_string(std::random_device()());
    ASSERT_EQ(0, ::setenv("KOLVAN_SECRET", secret.c_str(), 1));  // NOLINT(concurrency-mt-unsafe)

    const Program& ended = collect({"hot"});

    EXPECT_EQ(std::string::npos, (ended.output() + ended.feedback()).find(secret));
    std::set<std::string> seen;
    for (const auto& entry : fs::recursive_directory_iterator(directory.path())) {
        if (!entry.is_regular_file()) {
            continue;
        }
        seen.insert(entry.path().filename());
        std::string file = entry.path();
        if (entry.path().extension() == ".gz") {
            ASSERT_EQ(0, std::system(("gzip --decompress --keep '" + file + "'").c_str()));
            file.resize(file.size() - 3);
        }
        EXPECT_EQ(std::string::npos, readFile(file).find(secret)) << file;
    }
    EXPECT_EQ(1U, seen.count("profile.pb.gz"));
    EXPECT_EQ(1U, seen.count("summary.json"));
    EXPECT_EQ(1U, seen.count("collection.trace.json"));
}

}  // namespace
}  // namespace kolvan::test
