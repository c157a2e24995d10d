#include "companions/profiler/output/ProfileTable.h"

#include "tests/profiler/output/SampleProfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kolvan::profiler {
namespace {

using test::ProfileBuilder;

ProfileSummary emptySummary(Profile::Kind kind) {
    ProfileSummary summary;
    summary.kind = kind;
    summary.period = 1'000'000;
    return summary;
}

TEST(ProfileTableTest, ShowsFunctionsPathsAndHowFarToTrustThem) {
    const std::string text =
        profileTable(summarize(test::sampleProfile(), test::sampleCoverage(), "profile.pb.gz"));

    EXPECT_EQ(
        "   Self    Total   Seconds  Function (module)\n"
        " 72.0 %   72.0 %      0.72  mix (app)\n"
        " 15.0 %   15.0 %      0.15  fib (app)\n"
        "  8.0 %    8.0 %      0.08  ksys_read ([kernel])\n"
        "  5.0 %    5.0 %      0.05  [libplugin.so.1+0x...] (libplugin.so.1)\n"
        "  0.0 %   98.0 %      0.00  _start (app)\n"
        "  0.0 %   98.0 %      0.00  main (app)\n"
        "  0.0 %   72.0 %      0.00  hash (app)\n"
        "\n"
        " 70.0 %  of the time ends this path:\n"
        " 98.0 %  _start (app)\n"
        " 98.0 %   main (app)\n"
        " 70.0 %    hash (app)\n"
        " 70.0 %     mix (app)\n"
        "\n"
        " 15.0 %  of the time ends this path:\n"
        " 98.0 %  _start (app)\n"
        " 98.0 %   main (app)\n"
        " 15.0 %    fib (app)\n"
        "\n"
        "  8.0 %  of the time ends this path:\n"
        " 98.0 %  _start (app)\n"
        " 98.0 %   main (app)\n"
        "  8.0 %    ksys_read ([kernel])\n"
        "\n"
        "Coverage:  sampled 1.00 s of 1.01 s of CPU time (99.0 %), 2 lost, 98.0 % of the stacks "
        "reach their root, 5.0 % without a name\n"
        "Limit:     The kernel's part of the stacks is not shown to this user.\n",
        text);
}

TEST(ProfileTableTest, StackWithoutItsRootSaysThatItWasCut) {
    ProfileBuilder builder;
    builder.module("/a").thread(1, 1, "t", "p");
    const auto leaf = builder.location({"leaf"});
    builder.sample({leaf}, 1, 0, false);

    const std::string text = profileTable(summarize(builder.profile, {}, ""));

    EXPECT_NE(std::string::npos, text.find("100.0 %  of the time ends this path:\n"
                                           "         ... (the stack was cut here)\n"
                                           "100.0 %   leaf (a)\n"))
        << text;
}

TEST(ProfileTableTest, LongPathIsCutBetweenItsRootAndItsEnd) {
    const auto textOf = [](int calls) {
        ProfileBuilder builder;
        builder.module("/a").thread(1, 1, "t", "p");
        std::vector<std::uint32_t> stack;
        for (int number = 1; number <= calls; ++number) {
            stack.push_back(builder.location({"f" + std::to_string(number)}));
        }
        builder.sample(stack, 1);
        return profileTable(summarize(builder.profile, {}, ""));
    };

    const std::string whole = textOf(21);
    EXPECT_EQ(std::string::npos, whole.find("more calls")) << whole;
    EXPECT_NE(std::string::npos, whole.find("f7 (a)\n")) << whole;
    const std::string cut = textOf(30);
    EXPECT_NE(std::string::npos, cut.find("100.0 %       f6 (a)\n"
                                          "               ... (10 more calls)\n"
                                          "100.0 %         f17 (a)\n"))
        << cut;
    EXPECT_TRUE(cut.find("f30 (a)\n") != std::string::npos) << cut;
}

TEST(ProfileTableTest, LongNamesAreCutInTheMiddleAndNothingControlsTheTerminal) {
    ProfileBuilder builder;
    builder.module("/x/lib\x1B[31m.so").thread(1, 1, "t", "p");
    const std::string name(50, 'a');
    const auto leaf = builder.location({name + "\xC2\x9B\r" + std::string(50, 'z')});
    builder.sample({leaf}, 1);
    Coverage coverage;
    coverage.limits = {"bad\nlimit"};

    const std::string text = profileTable(summarize(builder.profile, coverage, ""));

    const std::string expected =
        std::string(34, 'a') + "..." + std::string(33, 'z') + " (lib?[31m.so)\n";
    EXPECT_NE(std::string::npos, text.find("  " + expected)) << text;
    EXPECT_NE(std::string::npos, text.find("Limit:     bad?limit\n")) << text;
    EXPECT_EQ(std::string::npos, text.find('\x1B'));
}

TEST(ProfileTableTest, BlindProfileIsOneLine) {
    ProfileSummary summary = emptySummary(Profile::Kind::Cpu);
    summary.coverage.accountedNanoseconds = 1'234'500'000;
    summary.coverage.lost = 7;
    summary.coverage.limits = {"Sampling is refused to this user."};

    EXPECT_EQ(
        "Blind:     no sample of the 1234.5 ms of CPU time that the target used, 7 lost\n"
        "Limit:     Sampling is refused to this user.\n",
        profileTable(summary));
}

TEST(ProfileTableTest, TooLittleCpuTimeForASampleIsNoBlindness) {
    ProfileSummary summary = emptySummary(Profile::Kind::Cpu);
    summary.coverage.accountedNanoseconds = 900'000;

    EXPECT_EQ(
        "Empty:     the target used 0.9 ms of CPU time, too little for a sample every 1.0 "
        "ms\n",
        profileTable(summary));

    summary.coverage.lost = 1;
    EXPECT_TRUE(profileTable(summary).starts_with("Blind:     "));
}

TEST(ProfileTableTest, NothingToSampleIsSaidInOneLine) {
    EXPECT_EQ("Empty:     the target used no CPU time\n",
              profileTable(emptySummary(Profile::Kind::Cpu)));
    EXPECT_EQ("Empty:     no thread was seen waiting\n",
              profileTable(emptySummary(Profile::Kind::Wait)));
}

TEST(ProfileTableTest, CoverageOfWaitingIsComparedWithNothing) {
    Coverage coverage;
    coverage.sampledNanoseconds = 2'500'000'000;
    coverage.samples = 4;
    coverage.incomplete = 1;

    EXPECT_EQ(
        "sampled 2.50 s of waiting, 0 lost, 75.0 % of the stacks reach their root, 0.0 % without "
        "a name",
        coverageText(Profile::Kind::Wait, coverage));
    EXPECT_EQ("sampled 0.00 s of 0.00 s of CPU time, 0 lost", coverageText(Profile::Kind::Cpu, {}));
}

}  // namespace
}  // namespace kolvan::profiler
