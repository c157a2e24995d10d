// Has the files read by gzip and by protobuf's compiler, protoc, which finds the description of the
// message in the directory KOLVAN_READERS.

#include "companions/profiler/output/Pprof.h"

#include "companions/profiler/base/ExitCode.h"
#include "tests/profiler/output/SampleProfile.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>

#include <sys/mount.h>

namespace kolvan::profiler {
namespace {

namespace fs = std::filesystem;
using kolvan::test::readFile;
using kolvan::test::runWithPrivateMounts;
using test::ProfileBuilder;

/// Standard output of a shell command, which has to succeed.
std::string outputOf(const std::string& command) {
    FILE* const pipe = ::popen(command.c_str(), "re");
    std::string output;
    std::array<char, 65536> buffer{};
    while (const std::size_t length = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        output.append(buffer.data(), length);
    }
    EXPECT_EQ(0, ::pclose(pipe)) << command;
    return output;
}

class PprofTest : public testing::Test {
protected:
    /// The message in `path` as protoc shows it.
    std::string decoded() const {
        return outputOf("gzip --decompress --stdout '" + path + "' | protoc --proto_path='" +
                        KOLVAN_READERS "' --decode=perftools.profiles.Profile profile.proto");
    }

    /// Number of lines of `decoded()` that are `line`.
    std::ptrdiff_t count(const std::string& line) const {
        std::istringstream lines(decoded());
        std::ptrdiff_t found = 0;
        for (std::string one; std::getline(lines, one);) {
            found += one == line ? 1 : 0;
        }
        return found;
    }

    kolvan::test::TemporaryDirectory directory;
    const std::string path = directory.entry("profile.pb.gz");
};

TEST_F(PprofTest, HoldsEveryPartOfTheProfile) {
    ProfileBuilder builder;
    builder.module("/opt/app", "00ff12");
    const auto main = builder.location({"inner", "main"});
    builder.module("[kernel]");
    const auto nameless = builder.location({});
    builder.thread(10, 11, "worker", "app").sample({main, nameless}, 25, 3);
    Coverage coverage;
    coverage.limits = {"A limit."};

    writePprof(builder.profile, coverage, path);

    EXPECT_EQ(
        R"(sample_type {
  type: 7
  unit: 8
}
sample_type {
  type: 9
  unit: 10
}
sample {
  location_id: 2
  location_id: 1
  value: 25
  value: 25000000
  label {
    key: 1
    str: 15
  }
  label {
    key: 2
    num: 11
  }
  label {
    key: 3
    str: 16
  }
  label {
    key: 4
    num: 10
  }
  label {
    key: 5
    num: 300
    num_unit: 6
  }
}
mapping {
  id: 1
  memory_start: 4096
  memory_limit: 36864
  file_offset: 1024
  filename: 17
  build_id: 18
  has_functions: true
  has_filenames: true
  has_line_numbers: true
  has_inline_frames: true
}
mapping {
  id: 2
  memory_start: 4096
  memory_limit: 36864
  file_offset: 1024
  filename: 19
}
location {
  id: 1
  mapping_id: 1
  address: 4096
  line {
    function_id: 1
    line: 1
  }
  line {
    function_id: 2
    line: 1
  }
}
location {
  id: 2
  mapping_id: 2
  address: 4112
  line {
    function_id: 4
  }
}
function {
  id: 1
  name: 20
  system_name: 21
  filename: 22
}
function {
  id: 2
  name: 23
  system_name: 24
  filename: 25
}
function {
  id: 4
  name: 26
  system_name: 26
}
string_table: ""
string_table: "thread"
string_table: "tid"
string_table: "process"
string_table: "pid"
string_table: "time"
string_table: "milliseconds"
string_table: "samples"
string_table: "count"
string_table: "cpu"
string_table: "nanoseconds"
string_table: "engine: perf"
string_table: "kind: cpu"
string_table: "coverage: sampled 0.00 s of 0.00 s of CPU time, 0 lost"
string_table: "limit: A limit."
string_table: "worker"
string_table: "app"
string_table: "/opt/app"
string_table: "00ff12"
string_table: "[kernel]"
string_table: "inner"
string_table: "_Zinner"
string_table: "inner.cpp"
string_table: "main"
string_table: "_Zmain"
string_table: "main.cpp"
string_table: "[kernel+0x...]"
time_nanos: 1700000000000000000
duration_nanos: 2000000000
period_type {
  type: 9
  unit: 10
}
period: 1000000
comment: 11
comment: 12
comment: 13
comment: 14
)",
        decoded());
}

TEST_F(PprofTest, WaitingIsAValueOfItsOwnKind) {
    Profile profile = test::sampleProfile();
    profile.kind = Profile::Kind::Wait;

    writePprof(profile, {}, path);

    EXPECT_EQ(1, count("string_table: \"wait\""));
    EXPECT_EQ(1, count("string_table: \"kind: wait\""));
    EXPECT_EQ(0, count("string_table: \"cpu\""));
}

TEST_F(PprofTest, ModuleWithOneNamelessAddressIsNotCalledNamed) {
    ProfileBuilder builder;
    builder.module("/a");
    (void)builder.location({"f"});
    (void)builder.location({});

    writePprof(builder.profile, {}, path);

    EXPECT_EQ(0, count("  has_functions: true"));
    EXPECT_EQ(0, count("  has_line_numbers: true"));
}

TEST_F(PprofTest, ThreadWithoutANameHasNoNameLabel) {
    ProfileBuilder builder;
    builder.thread(10, 11, "", "").sample({}, 1);

    writePprof(builder.profile, {}, path);

    EXPECT_EQ(3, count("  label {"));
    EXPECT_EQ(1, count("    num: 11"));
}

TEST_F(PprofTest, NamesOfAnyBytesStayReadable) {
    ProfileBuilder builder;
    builder.module("/bad\xFF").thread(1, 1, "t\xC3", "p");
    (void)builder.location({"f\x80g"});

    writePprof(builder.profile, {}, path);

    EXPECT_EQ(1, count(R"(string_table: "/bad\357\277\275")"));
    EXPECT_EQ(1, count(R"(string_table: "t\357\277\275")"));
    EXPECT_EQ(1, count(R"(string_table: "f\357\277\275g")"));
}

TEST_F(PprofTest, SameProfileMakesTheSameBytes) {
    const std::string another = directory.entry("another.pb.gz");

    writePprof(test::sampleProfile(), test::sampleCoverage(), path);
    writePprof(test::sampleProfile(), test::sampleCoverage(), another);

    EXPECT_EQ(readFile(path), readFile(another));
}

TEST_F(PprofTest, EmptyProfileIsAWholeFile) {
    writePprof(Profile(), {}, path);

    EXPECT_EQ(1, count("string_table: \"samples\""));
    EXPECT_EQ(0, count("sample {"));
}

/// A profile whose file is larger than every buffer on its way, and compresses badly.
Profile largeProfile() {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    std::mt19937 random;  // always the same numbers
    for (int number = 0; number < 1000; ++number) {
        (void)builder.location({"function_" + std::to_string(random())});
    }
    for (int number = 0; number < 20'000; ++number) {
        std::vector<std::uint32_t> stack(20);
        std::generate(stack.begin(), stack.end(),
                      [&random] { return static_cast<std::uint32_t>(random() % 1000); });
        builder.sample(stack, 1 + random() % 10);
    }
    return builder.profile;
}

TEST_F(PprofTest, LargeProfileArrivesWhole) {
    const Profile profile = largeProfile();

    writePprof(profile, {}, path);

    EXPECT_GT(fs::file_size(path), 500'000U);
    EXPECT_EQ(20'000, count("sample {"));
    EXPECT_EQ(1000, count("function {"));
}

TEST_F(PprofTest, FullDiskIsAFailureThatLeavesNoHalfFile) {
    const Profile profile = largeProfile();
    const std::string disk = directory.entry("disk");
    fs::create_directory(disk);

    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"));
        const std::string file = disk + "/profile.pb.gz";
        try {
            writePprof(profile, {}, file);
            FAIL() << "it fitted";
        } catch (const Failure& failure) {
            EXPECT_EQ(ExitCode::NotWritten, failure.exitCode());
            EXPECT_EQ("cannot write '" + file + "': No space left on device",
                      std::string(failure.what()));
        }
        EXPECT_FALSE(fs::exists(file));
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
}

TEST_F(PprofTest, PlaceThatCannotBeWrittenIsAFailure) {
    fs::create_directory(path);

    try {
        writePprof(Profile(), {}, path);
        FAIL() << "it was written";
    } catch (const Failure& failure) {
        EXPECT_EQ(ExitCode::NotWritten, failure.exitCode());
        EXPECT_EQ("cannot write '" + path + "': Is a directory", std::string(failure.what()));
    }
    EXPECT_TRUE(fs::is_directory(path));
}

}  // namespace
}  // namespace kolvan::profiler
