#include "tests/profiler/truth/TruthTest.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::FileDescriptor;

/// Tries what the engine needs. @return none, with errno set, when the system refuses
FileDescriptor openPerfEvent() {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_SOFTWARE;
    event.config = PERF_COUNT_SW_TASK_CLOCK;
    event.exclude_kernel = 1;
    event.disabled = 1;
    return FileDescriptor(
        static_cast<int>(::syscall(SYS_perf_event_open, &event, 0, -1, -1, PERF_FLAG_FD_CLOEXEC)));
}

}  // namespace

Program::Arguments fixture(const Program::Arguments& mode) {
    Program::Arguments command = {KOLVAN_TRUTH_FIXTURE};
    command.insert(command.end(), mode.begin(), mode.end());
    return command;
}

long long numberBehind(const std::string& word, const std::string& text) {
    const std::size_t at = ("\n" + text).find("\n" + word + " ");
    if (at == std::string::npos) {
        throw std::runtime_error("no " + word + " in: " + text);
    }
    return std::stoll(text.substr(at + word.size() + 1));
}

void TruthTest::SetUp() {
    if (isPerf() && !openPerfEvent()) {
        GTEST_SKIP() << "perf_event_open: " << std::strerror(errno);
    }
}

TruthTest::Arguments TruthTest::options(const Arguments& more) const {
    Arguments all = {"-r",  directory.entry("result"), "--engine", GetParam(), "--ui-output-format",
                     "xml", "--ui-output-fd",          "3"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

const Program& TruthTest::collectCommand(const Arguments& command, const Arguments& moreOptions) {
    Arguments all = options(moreOptions);
    all.emplace_back("--");
    all.insert(all.end(), command.begin(), command.end());
    collector = std::make_unique<Program>(all, KOLVAN_TRCAP_PATH, patience);
    EXPECT_EQ(0, collector->finish()) << collector->errors();
    return *collector;
}

const Program& TruthTest::collect(const Arguments& mode, const Arguments& moreOptions) {
    const Program& ended = collectCommand(fixture(mode), moreOptions);
    EXPECT_EQ("", ended.errors());
    expectWhole("target-ended");
    EXPECT_STREQ("ended with exit status 0", summary()["targetEnding"].GetString());
    return ended;
}

rapidjson::Document TruthTest::summary() const {
    const std::string text = readFile(resultFile("summary.json"));
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    if (document.HasParseError()) {
        throw std::runtime_error("no JSON: " + text);
    }
    return document;
}

void TruthTest::expectWhole(const std::string& reason) const {
    const rapidjson::Document found = summary();
    EXPECT_EQ(reason, found["reason"].GetString());
    ASSERT_TRUE(found.HasMember("profile"));
    EXPECT_STREQ(GetParam(), found["profile"]["engine"].GetString());
    std::uint64_t samples = 0;
    for (const ReadProfile::Sample& sample : profile().samples) {
        samples += static_cast<std::uint64_t>(sample.count);
    }
    EXPECT_EQ(found["profile"]["samples"].GetUint64(), samples);
}

}  // namespace kolvan::test
