#include "companions/server/profiles/ProfileReader.h"

#include "companions/profiler/output/Pprof.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/profiler/output/SampleProfile.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include <protozero/pbf_builder.hpp>

namespace kolvan::server::profiles {
namespace {

using kolvan::test::readFile;
using test::gzip;
using test::pieces;
using test::PprofFile;

enum class Field : protozero::pbf_tag_type {};
using Builder = protozero::pbf_builder<Field>;

constexpr Field field(protozero::pbf_tag_type number) {
    return static_cast<Field>(number);
}

/// What is said of a file that is refused; nothing when it is read.
std::string refusal(const std::string& file, const ProfileLimits& limits = {}) {
    try {
        (void)readProfile(pieces(file), limits);
    } catch (const UnreadableProfile& error) {
        return error.what();
    }
    return {};
}

/// Names that a test has made up, and what it was asked for.
class KnownNames final : public CodeNames {
public:
    std::string stampOf(const std::string& buildId) const override {
        asked.push_back(buildId);
        return known.contains(buildId) ? "known" : "";
    }
    std::vector<std::string> namesAt(const std::string& buildId,
                                     std::span<const std::uint64_t> addresses) const override {
        std::vector<std::string> names;
        for (const std::uint64_t address : addresses) {
            const auto& ofFile = known.at(buildId);
            const auto name = ofFile.find(address);
            names.push_back(name == ofFile.end() ? "" : name->second);
        }
        return names;
    }

    std::map<std::string, std::map<std::uint64_t, std::string>> known;  // by build-id
    mutable std::vector<std::string> asked;
};

/// The functions of a sample's stack, from the root on.
std::string stackOf(const Profile& profile, std::size_t sample) {
    std::string stack;
    for (std::uint32_t node = profile.samples[sample].node; node != 0;
         node = profile.calls.nodes[node].parent) {
        const std::string& name = profile.functions[profile.calls.nodes[node].function].name;
        stack = name + (stack.empty() ? "" : ";") + stack;
    }
    return stack;
}

/// A message with one sample type, "cpu" in "ns", and these bytes behind it.
std::string withType(const std::string& rest) {
    std::string bytes;
    Builder message(bytes);
    for (const char* const text : {"", "cpu", "ns"}) {
        message.add_string(field(6), text);
    }
    {
        Builder type(message, field(1));
        type.add_int64(field(1), 1);
        type.add_int64(field(2), 2);
    }
    return bytes + rest;
}

template <typename Fill>
std::string messageOf(Fill fill) {
    std::string bytes;
    Builder message(bytes);
    fill(message);
    return withType(bytes);
}

TEST(ProfileReaderTest, HoldsWhatTheFileHolds) {
    const Profile profile = PprofFile()
                                .thread(10, 11, "worker", "app")
                                .at(300)
                                .sample("main;hash@/lib/libhash.so", {2, 2000})
                                .sample("main", {1, 1000})
                                .read();

    ASSERT_EQ(2U, profile.types.size());
    EXPECT_EQ("samples", profile.types[0].name);
    EXPECT_EQ("nanoseconds", profile.types[1].unit);
    EXPECT_EQ(1U, profile.defaultType);
    ASSERT_EQ(3U, profile.functions.size());
    EXPECT_EQ("[no stack]", profile.functions[0].name);
    EXPECT_EQ("hash", profile.functions[1].name);
    EXPECT_EQ("/lib/libhash.so", profile.functions[1].module);
    EXPECT_EQ("main", profile.functions[2].name);
    ASSERT_EQ(2U, profile.samples.size());
    EXPECT_EQ("main;hash", stackOf(profile, 0));
    EXPECT_EQ("main", stackOf(profile, 1));
    EXPECT_EQ((std::vector<std::uint64_t>{2, 2000, 1, 1000}), profile.values);
    ASSERT_EQ(1U, profile.moments.size());
    EXPECT_EQ(300, profile.moments[0].milliseconds);
    ASSERT_EQ(1U, profile.threads.size());
    EXPECT_EQ(10, profile.threads[0].process);
    EXPECT_EQ(11, profile.threads[0].id);
    EXPECT_EQ("worker", profile.threads[0].name);
    EXPECT_EQ("app", profile.threads[0].processName);
}

TEST(ProfileReaderTest, ThreadsStandInTheOrderOfTheirNumbers) {
    const Profile profile =
        PprofFile().thread(10, 12).sample("b", {1, 1}).thread(10, 11).sample("a", {1, 1}).read();

    ASSERT_EQ(2U, profile.threads.size());
    EXPECT_EQ(11, profile.threads[0].id);
    EXPECT_EQ(12, profile.threads[profile.moments[profile.samples[0].moment].thread].id);
}

TEST(ProfileReaderTest, SampleWithoutATimeHasNone) {
    const Profile profile = PprofFile().thread(1, 1).sample("f", {1, 1}).read();

    EXPECT_FALSE(profile.moments[0].milliseconds.has_value());
}

TEST(ProfileReaderTest, InlinedCallsAreCallsOfTheStack) {
    const std::string file = gzip(messageOf([](Builder& message) {
        message.add_string(field(6), "outer");
        message.add_string(field(6), "inner");
        {
            Builder location(message, field(4));
            location.add_uint64(field(1), 77);
            for (const std::uint64_t function : {2U, 1U}) {
                Builder line(location, field(4));
                line.add_uint64(field(1), function);
            }
        }
        for (const std::uint64_t number : {1U, 2U}) {
            Builder function(message, field(5));
            function.add_uint64(field(1), number);
            function.add_int64(field(2), static_cast<std::int64_t>(number) + 2);
        }
        Builder sample(message, field(2));
        sample.add_uint64(field(1), 77);  // not packed
        sample.add_int64(field(2), 5);
    }));

    const Profile profile = readProfile(pieces(file));

    EXPECT_EQ("outer;inner", stackOf(profile, 0));
    EXPECT_EQ((std::vector<std::uint64_t>{5}), profile.values);
}

TEST(ProfileReaderTest, CodeWithoutNamesCountsTogetherForEachModule) {
    const std::string file = gzip(messageOf([](Builder& message) {
        message.add_string(field(6), "/usr/lib/libx.so");
        {
            Builder mapping(message, field(3));
            mapping.add_uint64(field(1), 1);
            mapping.add_int64(field(5), 3);
        }
        for (const std::uint64_t id : {1U, 2U}) {
            Builder location(message, field(4));
            location.add_uint64(field(1), id);
            location.add_uint64(field(2), id == 1 ? 1 : 0);
        }
        for (const std::uint64_t id : {1U, 2U}) {
            Builder sample(message, field(2));
            sample.add_uint64(field(1), id);
            sample.add_int64(field(2), 5);
        }
    }));

    const Profile profile = readProfile(pieces(file));

    EXPECT_EQ("[libx.so+0x...]", stackOf(profile, 0));
    EXPECT_EQ("[unknown]", stackOf(profile, 1));
}

TEST(ProfileReaderTest, SampleWithoutAStackSaysSo) {
    EXPECT_EQ("[no stack]", stackOf(PprofFile().sample("", {1, 1}).read(), 0));
}

TEST(ProfileReaderTest, NamesOfAnyBytesBecomeUtf8) {
    const Profile profile =
        PprofFile().thread(1, 1, "t\xC3").sample("f\x80g@/bad\xFF", {1, 1}).read();

    EXPECT_EQ("f\xEF\xBF\xBDg", profile.functions[1].name);
    EXPECT_EQ("/bad\xEF\xBF\xBD", profile.functions[1].module);
    EXPECT_EQ("t\xEF\xBF\xBD", profile.threads[0].name);
}

TEST(ProfileReaderTest, FileMayBeEmptyOfSamples) {
    EXPECT_EQ(0U, PprofFile().read().samples.size());
}

TEST(ProfileReaderTest, DefaultTypeIsWhatTheFileSays) {
    const std::string file = gzip(messageOf([](Builder& message) {
        Builder(message, field(1)).add_int64(field(1), 2);
        message.add_int64(field(14), 1);
    }));

    EXPECT_EQ(0U, readProfile(pieces(file)).defaultType);
}

TEST(ProfileReaderTest, UnknownFieldsArePassedOver) {
    const std::string file = gzip(messageOf([](Builder& message) {
        message.add_fixed64(field(100), 1);
        message.add_fixed32(field(101), 1);
        message.add_string(field(102), "later");
        message.add_int64(field(103), 1);
        Builder sample(message, field(2));
        sample.add_int64(field(2), 5);
        sample.add_fixed64(field(50), 1);
    }));

    EXPECT_EQ(1U, readProfile(pieces(file)).samples.size());
}

TEST(ProfileReaderTest, TwoFilesBehindEachOtherAreOneMessage) {
    const std::string message = PprofFile().sample("main", {1, 1}).message();

    const Profile profile =
        readProfile(pieces(gzip(message.substr(0, 20)) + gzip(message.substr(20)), 7));

    EXPECT_EQ("main", stackOf(profile, 0));
}

TEST(ProfileReaderTest, WhatIsNotCompressedIsNoProfile) {
    EXPECT_EQ("This is no profile: it is not compressed by gzip.", refusal("text"));
    EXPECT_EQ("The profile ends too early: its file is not whole.", refusal(""));
}

TEST(ProfileReaderTest, FileThatIsCutOffIsRefusedWhereverItIsCut) {
    const std::string file = PprofFile().thread(1, 2, "t").at(100).sample("main;f", {1, 1}).file();

    for (std::size_t length = 0; length < file.size(); ++length) {
        EXPECT_EQ("The profile ends too early: its file is not whole.",
                  refusal(file.substr(0, length)))
            << length;
    }
}

TEST(ProfileReaderTest, WrongChecksumIsNoticed) {
    std::string file = PprofFile().sample("main", {1, 1}).file();
    file[file.size() - 6] ^= 1;

    EXPECT_EQ("The profile is damaged: it cannot be unpacked.", refusal(file));
}

TEST(ProfileReaderTest, MessageThatIsCutOffIsRefused) {
    const std::string message = PprofFile().sample("main", {1, 1}).message();

    EXPECT_EQ("The profile is damaged: it is no message of pprof.",
              refusal(gzip(message.substr(0, message.size() - 1))));
    EXPECT_EQ("The profile is damaged: it is no message of pprof.", refusal(gzip("\xFF")));
    EXPECT_EQ("The profile is damaged: it is no message of pprof.",
              refusal(gzip(std::string(11, '\xFF'))));
}

TEST(ProfileReaderTest, PartThatIsCutOffIsRefused) {
    const std::string file = gzip(messageOf([](Builder& message) {
        message.add_string(field(2), "\x12\x05\x01");  // announces five bytes
    }));

    EXPECT_EQ("The profile is damaged: it is no message of pprof.", refusal(file));
}

TEST(ProfileReaderTest, ProfileThatMeasuresNothingIsRefused) {
    EXPECT_EQ("The profile does not say what it measures.", refusal(gzip("")));
    EXPECT_EQ("The profile does not say what it measures.",
              refusal(PprofFile().type("", "count").file()));
}

TEST(ProfileReaderTest, EachValueHasANameOfItsOwn) {
    EXPECT_EQ("The profile is damaged: two of its values have one name.",
              refusal(PprofFile().type("cpu", "nanoseconds").type("cpu", "count").file()));
}

TEST(ProfileReaderTest, TextThatIsNotThereIsRefused) {
    const std::string damaged = "The profile is damaged: it names a text that it does not have.";

    for (const std::int64_t text :
         {std::int64_t{3}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max()}) {
        EXPECT_EQ(damaged, refusal(gzip(messageOf([&](Builder& message) {
                      Builder(message, field(1)).add_int64(field(1), text);
                  }))));
        EXPECT_EQ(damaged, refusal(gzip(messageOf(
                               [&](Builder& message) { message.add_int64(field(13), text); }))));
        EXPECT_EQ(damaged, refusal(gzip(messageOf([&](Builder& message) {
                      Builder sample(message, field(2));
                      sample.add_int64(field(2), 1);
                      Builder(sample, field(3)).add_int64(field(1), text);
                  }))));
    }
}

TEST(ProfileReaderTest, PartThatIsNotThereIsRefused) {
    EXPECT_EQ("The profile is damaged: it names a location that it does not have.",
              refusal(gzip(messageOf([](Builder& message) {
                  Builder sample(message, field(2));
                  sample.add_uint64(field(1), 1);
                  sample.add_int64(field(2), 1);
              }))));
    EXPECT_EQ("The profile is damaged: it names a mapping that it does not have.",
              refusal(gzip(messageOf(
                  [](Builder& message) { Builder(message, field(4)).add_uint64(field(2), 9); }))));
    EXPECT_EQ("The profile is damaged: it names a function that it does not have.",
              refusal(gzip(messageOf([](Builder& message) {
                  Builder location(message, field(4));
                  Builder(location, field(4)).add_uint64(field(1), 9);
              }))));
}

TEST(ProfileReaderTest, ValuesThatCannotBeAddedUpAreRefused) {
    const std::int64_t greatest = std::numeric_limits<std::int64_t>::max();

    EXPECT_EQ("", refusal(PprofFile().sample("f", {1, greatest}).file()));
    EXPECT_EQ("The profile is damaged: its samples are too many.",
              refusal(PprofFile().sample("f", {1, greatest}).sample("f", {1, 1}).file()));
    EXPECT_EQ("The profile is damaged: a sample has a negative value.",
              refusal(PprofFile().sample("f", {1, -1}).file()));
}

TEST(ProfileReaderTest, SamplesHaveAValueOfEachType) {
    const std::string damaged = "The profile is damaged: its samples differ in their values.";

    EXPECT_EQ(damaged, refusal(PprofFile().sample("f", {1}).file()));
    EXPECT_EQ(damaged, refusal(PprofFile().sample("f", {1, 1}).sample("f", {1}).file()));
}

TEST(ProfileReaderTest, FileThatUnpacksToTooMuchIsRefused) {
    ProfileLimits limits;
    limits.bytes = 1'000'000;
    const std::string bomb = gzip(std::string(10'000'000, '\0'));

    EXPECT_LT(bomb.size(), 20'000U);
    EXPECT_EQ("The profile is damaged: it is no message of pprof.", refusal(bomb, limits));
    EXPECT_EQ("The profile is too large: unpacked, it has more than 1000000 bytes.",
              refusal(gzip(messageOf([](Builder& message) {
                          message.add_string(field(102), std::string(10'000'000, '\0'));
                      })),
                      limits));
}

TEST(ProfileReaderTest, PartThatIsTooLargeIsRefusedBeforeItIsRead) {
    ProfileLimits limits;
    limits.partBytes = 100;

    EXPECT_EQ("The profile is too large: a single part of it has more than 100 bytes.",
              refusal(gzip(withType("\x32\xFF\xFF\xFF\xFF\x0F")), limits));
}

TEST(ProfileReaderTest, MoreThanIsTakenIsRefused) {
    const std::string file =
        PprofFile().thread(1, 1).sample("a;b", {1, 1}).thread(1, 2).sample("a", {1, 1}).file();
    ProfileLimits limits;

    limits.samples = 1;
    EXPECT_EQ("The profile is too large: it has more than 1 samples.", refusal(file, limits));
    limits = {};
    limits.sampleTypes = 1;
    EXPECT_EQ("The profile is too large: it has more than 1 values in each sample.",
              refusal(file, limits));
    limits = {};
    limits.entries = 1;
    EXPECT_EQ("The profile is too large: it has more than 1 mappings.", refusal(file, limits));
    limits = {};
    limits.threads = 1;
    EXPECT_EQ("The profile is too large: it has more than 1 threads.", refusal(file, limits));
    limits = {};
    limits.calls = 2;
    EXPECT_EQ("The profile is too large: it has more than 2 calls in its stacks.",
              refusal(file, limits));
    limits.calls = 3;
    EXPECT_EQ("", refusal(file, limits));
}

TEST(ProfileReaderTest, LongNameThatIsUsedAgainAndAgainIsNotCopiedWithoutEnd) {
    ProfileLimits limits;
    limits.bytes = 30'000;
    PprofFile file;
    for (int number = 0; number < 100; ++number) {
        file.sample("f" + std::to_string(number) + "@/" + std::string(1000, 'm'), {1, 1});
    }

    EXPECT_EQ("The profile is too large: it has more than 30000 bytes of names.",
              refusal(file.file(), limits));
}

/// What the profiler writes of a stack with named and nameless code.
std::string writtenByTheProfiler(const kolvan::test::TemporaryDirectory& directory) {
    profiler::test::ProfileBuilder builder;
    builder.module("/opt/app/app", "00ff12");
    const auto main = builder.location({"main"});
    const auto first = builder.location({});   // at 0x1010
    const auto second = builder.location({});  // at 0x1020
    builder.module("/usr/lib/libother.so", "77");
    const auto other = builder.location({});
    builder.module("/usr/lib/libplain.so");
    const auto plain = builder.location({});
    builder.thread(1, 1, "app", "app").sample({main, first, other, plain, second}, 5);
    std::string path = directory.entry("profile.pb.gz");
    profiler::writePprof(builder.profile, {}, path);
    return path;
}

TEST(ProfileReaderTest, CodeWithoutNamesIsNamedByItsBuildIdAndAddress) {
    const kolvan::test::TemporaryDirectory directory;
    const std::string path = writtenByTheProfiler(directory);
    KnownNames names;
    names.known["00ff12"] = {{0x1000, "not asked for"}, {0x1010, "hidden(int)"}};

    const Profile profile = readProfile(pieces(readFile(path)), {}, names);

    EXPECT_EQ("main;hidden(int);[libother.so+0x...];[libplain.so+0x...];[app+0x...]",
              stackOf(profile, 0));
}

TEST(ProfileReaderTest, TwoPlacesOfOneFunctionAreOneFunction) {
    const kolvan::test::TemporaryDirectory directory;
    const std::string path = writtenByTheProfiler(directory);
    KnownNames names;
    names.known["00ff12"] = {{0x1010, "hidden"}, {0x1020, "hidden"}};

    const Profile profile = readProfile(pieces(readFile(path)), {}, names);

    std::vector<std::string> functions;
    for (const Profile::Function& function : profile.functions) {
        functions.push_back(function.name + " in " + function.module);
    }
    EXPECT_EQ(
        std::vector<std::string>({"[libother.so+0x...] in /usr/lib/libother.so",
                                  "[libplain.so+0x...] in /usr/lib/libplain.so", "[no stack] in ",
                                  "hidden in /opt/app/app", "main in /opt/app/app"}),
        functions);
}

TEST(ProfileReaderTest, NamesFromElsewhereOfAnyBytesBecomeUtf8) {
    const kolvan::test::TemporaryDirectory directory;
    const std::string path = writtenByTheProfiler(directory);
    KnownNames names;
    names.known["00ff12"] = {{0x1010, "hid\xFF"}, {0x1020, ""}};

    const Profile profile = readProfile(pieces(readFile(path)), {}, names);

    EXPECT_EQ("main;hid\xEF\xBF\xBD;[libother.so+0x...];[libplain.so+0x...];[app+0x...]",
              stackOf(profile, 0));
}

TEST(ProfileReaderTest, NoMoreBuildIdsAreAskedForThanProgramsHaveLibraries) {
    const std::string file = gzip(messageOf([](Builder& message) {
        std::uint64_t id = 0;
        for (const std::size_t length : {8U, 128U, 129U, 100'000U}) {
            message.add_string(field(6), std::string(length, 'a'));
        }
        for (const std::int64_t buildId : {3, 4, 5, 6}) {
            ++id;
            Builder mapping(message, field(3));
            mapping.add_uint64(field(1), id);
            mapping.add_int64(field(6), buildId);
        }
        for (int copy = 0; copy < 5000; ++copy) {
            message.add_string(field(6), std::to_string(copy));
            ++id;
            Builder mapping(message, field(3));
            mapping.add_uint64(field(1), id);
            mapping.add_int64(field(6), 7 + copy);
        }
        for (std::uint64_t place = 1; place <= id; ++place) {
            Builder location(message, field(4));
            location.add_uint64(field(1), place);
            location.add_uint64(field(2), place);
        }
    }));
    const KnownNames names;

    (void)readProfile(pieces(file), {}, names);

    EXPECT_EQ(4096U - 2U, names.asked.size());  // all but the two that are too long
    EXPECT_EQ(std::string(8, 'a'), names.asked.at(0));
    EXPECT_EQ(std::string(128, 'a'), names.asked.at(1));
    EXPECT_EQ("0", names.asked.at(2));
}

TEST(ProfileReaderTest, MoreNamesFromElsewhereThanIsTakenAreRefused) {
    const kolvan::test::TemporaryDirectory directory;
    const std::string file = readFile(writtenByTheProfiler(directory));
    KnownNames names;
    names.known["00ff12"] = {{0x1010, std::string(10'000, 'x')}};
    ProfileLimits limits;
    limits.bytes = 10'000;

    EXPECT_THROW((void)readProfile(pieces(file), limits, names), UnreadableProfile);
    names.known["00ff12"] = {{0x1010, "x"}};
    EXPECT_NO_THROW((void)readProfile(pieces(file), limits, names));
}

TEST(ProfileReaderTest, FileIsReadFromTheDisk) {
    const kolvan::test::TemporaryDirectory directory;
    const std::string path =
        directory.write("profile.pb.gz", PprofFile().sample("main", {1, 1}).file());

    EXPECT_EQ("main", stackOf(readProfileFile(path), 0));
}

TEST(ProfileReaderTest, FileThatIsNotThereIsTheSystemsError) {
    const kolvan::test::TemporaryDirectory directory;

    try {
        (void)readProfileFile(directory.path() / "missing");
        FAIL() << "it was read";
    } catch (const std::system_error& error) {
        EXPECT_EQ(std::errc::no_such_file_or_directory, error.code());
    }
    EXPECT_THROW((void)readProfileFile(directory.path()), std::system_error);
}

}  // namespace
}  // namespace kolvan::server::profiles
