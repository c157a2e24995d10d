#pragma once

#include "tests/profiler/support/Program.h"
#include "tests/profiler/truth/ReadProfile.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <chrono>
#include <memory>
#include <string>

namespace kolvan::test {

/// Collects with the real kolvan-trcap, by the engine that is the parameter: "perf" or "ptrace".
/// Where the system refuses it, the test says so and is skipped.
class TruthTest : public testing::TestWithParam<const char*> {
protected:
    using Arguments = Program::Arguments;

    void SetUp() override;

    static bool isPerf() { return std::string(GetParam()) == "perf"; }

    /// Options of a collection into this test's own result directory, and `more`.
    Arguments options(const Arguments& more) const;

    /// Collects a mode of the fixture from its start to its end, which has to go well.
    /// @return the collector, which has ended
    const Program& collect(const Arguments& mode, const Arguments& moreOptions = {});

    /// The same of any command.
    const Program& collectCommand(const Arguments& command, const Arguments& moreOptions = {});

    ReadProfile profile() const { return ReadProfile(resultFile("profile.pb.gz")); }
    rapidjson::Document summary() const;
    std::string resultFile(const std::string& name) const {
        return directory.entry("result/data.0/" + name);
    }

    /// Expects results that are whole, for the reason given: "duration", "target-ended" and so on.
    void expectWhole(const std::string& reason) const;

    TemporaryDirectory directory;
    std::chrono::seconds patience = Program::kPatience;  // with a collection

private:
    std::unique_ptr<Program> collector;
};

/// The command line of the fixture in a mode.
Program::Arguments fixture(const Program::Arguments& mode);

/// The number behind `word` at the beginning of a line of `text`.
/// @throws std::runtime_error when there is none
long long numberBehind(const std::string& word, const std::string& text);

}  // namespace kolvan::test
