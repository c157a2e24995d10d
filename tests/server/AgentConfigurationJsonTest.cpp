#include "server/AgentConfigurationJson.h"

#include "tests/server/JsonCases.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <type_traits>

namespace cagnt1 {

// The tests below compare records; a failure shows what was read.
static void PrintTo(const AgentConfiguration& configuration, std::ostream* stream) {
    *stream << serializeConfiguration(configuration);
}

namespace {

using kolvan::test::EscapedText;
using kolvan::test::escapedTexts;
using kolvan::test::kExtremeDepth;
using kolvan::test::kGreatDepth;
using kolvan::test::nestedArrays;
using kolvan::test::withNul;

struct Key {
    const char* name;
    std::string AgentConfiguration::*field;
};

constexpr Key kKeys[] = {
    {"accessToken", &AgentConfiguration::accessToken},
    {"serverEndpoint", &AgentConfiguration::serverEndpoint},
    {"serverCertificateName", &AgentConfiguration::serverCertificateName},
    {"buildVersion", &AgentConfiguration::buildVersion},
    {"x86TargetPackageArchiveName", &AgentConfiguration::x86TargetPackageArchiveName},
    {"x64TargetPackageArchiveName", &AgentConfiguration::x64TargetPackageArchiveName},
};

constexpr char kTokenOnly[] = R"({"accessToken":"t"})";

// The record in which `key` alone holds a value.
AgentConfiguration only(const Key& key, const std::string& value) {
    AgentConfiguration configuration;
    configuration.*key.field = value;
    return configuration;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// A file that holds one member.
std::string fileWith(const Key& key, const std::string& value) {
    return "{" + quoted(key.name) + ":" + value + "}";
}

TEST(AgentConfigurationTest, IsAValueWithItsFieldsInTheOrderOfTheKeys) {
    const AgentConfiguration configuration{"1", "2", "3", "4", "5", "6"};

    EXPECT_EQ("1", configuration.accessToken);
    EXPECT_EQ("2", configuration.serverEndpoint);
    EXPECT_EQ("3", configuration.serverCertificateName);
    EXPECT_EQ("4", configuration.buildVersion);
    EXPECT_EQ("5", configuration.x86TargetPackageArchiveName);
    EXPECT_EQ("6", configuration.x64TargetPackageArchiveName);
    EXPECT_TRUE(std::is_copy_assignable_v<AgentConfiguration>);
}

TEST(AgentConfigurationJsonTest, AllSixKeysAreRead) {
    EXPECT_EQ((AgentConfiguration{"t", "e", "c", "b", "86", "64"}),
              parseConfiguration(R"({"x64TargetPackageArchiveName":"64","buildVersion":"b",)"
                                 R"("accessToken":"t","serverCertificateName":"c",)"
                                 R"("x86TargetPackageArchiveName":"86","serverEndpoint":"e"})"));
}

TEST(AgentConfigurationJsonTest, EachKeyFillsItsOwnField) {
    for (const Key& key : kKeys) {
        EXPECT_EQ(only(key, "value"), parseConfiguration(fileWith(key, "\"value\"")));
    }
}

TEST(AgentConfigurationJsonTest, MissingKeysAreEmptySettings) {
    EXPECT_EQ((AgentConfiguration{"t", "e", "", "", "a", "b"}),
              parseConfiguration(R"({"accessToken":"t","serverEndpoint":"e",)"
                                 R"("x86TargetPackageArchiveName":"a",)"
                                 R"("x64TargetPackageArchiveName":"b"})"));
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration("{}"));
}

TEST(AgentConfigurationJsonTest, OtherKeysAreIgnored) {
    EXPECT_EQ((AgentConfiguration{"t", "", "", "", "", ""}),
              parseConfiguration(R"({"AccessToken":"no","accesstoken":"no","token":"no","":"no",)"
                                 R"("accessToken ":"no","accessToken\u0000":"no",)"
                                 R"("x":{"serverEndpoint":"no"},"accessToken":"t",)"
                                 R"("server":[{"serverEndpoint":"no"}],"n":-0.5e-3})"));
}

TEST(AgentConfigurationJsonTest, KeyWrittenWithEscapesIsTheSameKey) {
    EXPECT_EQ("t", parseConfiguration(R"({"\u0061ccessToken":"t"})").accessToken);
}

TEST(AgentConfigurationJsonTest, ValueThatIsNoStringIsAnEmptySetting) {
    for (const Key& key : kKeys) {
        for (const char* const value :
             {"123", "0", "-1.5e3", "true", "false", "null", "[]", "{}", R"(["v"])",
              R"({"accessToken":"v","serverEndpoint":"v"})"}) {
            EXPECT_EQ(AgentConfiguration{}, parseConfiguration(fileWith(key, value)))
                << key.name << value;
        }
    }
}

TEST(AgentConfigurationJsonTest, OfSeveralEqualKeysTheFirstCounts) {
    for (const Key& key : kKeys) {
        const std::string name = quoted(key.name);
        EXPECT_EQ(only(key, "a"), parseConfiguration("{" + name + ":\"a\",\"x\":1," + name +
                                                     ":\"b\"," + name + ":\"c\"}"));
    }
}

TEST(AgentConfigurationJsonTest, FirstOfSeveralEqualKeysCountsAlsoWhereItIsNoString) {
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(R"({"accessToken":1,"accessToken":"b"})"));
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(R"({"accessToken":"","accessToken":"b"})"));
    EXPECT_EQ("a", parseConfiguration(R"({"accessToken":"a","accessToken":null})").accessToken);
}

TEST(AgentConfigurationJsonTest, ValuesAreTakenExactlyAsWritten) {
    for (const char* const value : {" ", "  Token\x7F ", "not a url", "HTTPS://Host/", "/ca.pem",
                                    "../x", "gr\xC3\xBC\xC3\x9F", "\xFF\xC3("}) {
        for (const Key& key : kKeys) {
            EXPECT_EQ(only(key, value), parseConfiguration(fileWith(key, quoted(value))));
        }
    }
}

TEST(AgentConfigurationJsonTest, EscapesAreRead) {
    EXPECT_EQ("\"\\/\b\f\n\r\tA\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80\x01",
              parseConfiguration(
                  R"({"accessToken":"\"\\\/\b\f\n\r\t\u0041\u00fc\u20AC\ud83d\uDE00\u0001"})")
                  .accessToken);
}

TEST(AgentConfigurationJsonTest, ValuesEndAtTheirFirstNul) {
    for (const Key& key : kKeys) {
        EXPECT_EQ(only(key, "a"), parseConfiguration(fileWith(key, R"("a\u0000b\u0000")")));
        EXPECT_EQ(AgentConfiguration{}, parseConfiguration(fileWith(key, R"("\u0000b")")));
    }
}

TEST(AgentConfigurationJsonTest, TextEndsAtItsFirstNul) {
    EXPECT_EQ("t", parseConfiguration(kTokenOnly + withNul("\0garbage")).accessToken);
    EXPECT_EQ("t", parseConfiguration(kTokenOnly + withNul("\n\0{}")).accessToken);
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(withNul("\0") + kTokenOnly));
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(withNul("{\"accessToken\":\"t\0\"}")));
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(withNul("{\"accessToken\":\"t\"\0}")));
}

TEST(AgentConfigurationJsonTest, WhitespaceOfJsonIsSkipped) {
    EXPECT_EQ("t", parseConfiguration(" \t\r\n{ \"accessToken\"\t:\r\"t\"\n } \t\r\n").accessToken);
}

TEST(AgentConfigurationJsonTest, TextThatIsNoJsonGivesEmptySettings) {
    ASSERT_EQ("t", parseConfiguration(kTokenOnly).accessToken);

    for (const std::string& text : kolvan::test::spoiledTexts(kTokenOnly)) {
        EXPECT_EQ(AgentConfiguration{}, parseConfiguration(text)) << text;
    }
}

TEST(AgentConfigurationJsonTest, ByteOrderMarkMakesTheTextInvalid) {
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(std::string("\xEF\xBB\xBF") + kTokenOnly));
}

TEST(AgentConfigurationJsonTest, RootThatIsNoObjectGivesEmptySettings) {
    for (const char* const text : {"", " ", "[]", "null", "true", "1", "\"accessToken\"",
                                   R"([{"accessToken":"t"}])", R"(["accessToken","t"])"}) {
        EXPECT_EQ(AgentConfiguration{}, parseConfiguration(text)) << text;
    }
}

TEST(AgentConfigurationJsonTest, IgnoredKeyMayBeNestedWithoutLimit) {
    EXPECT_EQ(
        "t", parseConfiguration(R"({"x":)" + nestedArrays(kExtremeDepth) + R"(,"accessToken":"t"})")
                 .accessToken);
}

TEST(AgentConfigurationJsonTest, NestedTextOfAnotherShapeGivesEmptySettings) {
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(nestedArrays(kGreatDepth)));
    EXPECT_EQ(AgentConfiguration{}, parseConfiguration(std::string(kGreatDepth, '[')));
    EXPECT_EQ(AgentConfiguration{},
              parseConfiguration(R"({"accessToken":"t","x":)" + std::string(kGreatDepth, '[')));
    EXPECT_EQ(AgentConfiguration{},
              parseConfiguration(R"({"accessToken":)" + nestedArrays(kGreatDepth) + "}"));
}

TEST(AgentConfigurationJsonTest, AllSixKeysAreWrittenInTheOrderOfTheRecord) {
    EXPECT_EQ(R"({"accessToken":"t","serverEndpoint":"https://h:1/p","serverCertificateName":"c",)"
              R"("buildVersion":"b","x86TargetPackageArchiveName":"86",)"
              R"("x64TargetPackageArchiveName":"64"})",
              serializeConfiguration({"t", "https://h:1/p", "c", "b", "86", "64"}));
}

TEST(AgentConfigurationJsonTest, EmptySettingsAreWrittenAsEmptyStrings) {
    EXPECT_EQ(R"({"accessToken":"","serverEndpoint":"","serverCertificateName":"",)"
              R"("buildVersion":"","x86TargetPackageArchiveName":"",)"
              R"("x64TargetPackageArchiveName":""})",
              serializeConfiguration({}));
}

TEST(AgentConfigurationJsonTest, EveryByteIsEscapedOnlyWhereItMust) {
    for (const EscapedText& byte : escapedTexts()) {
        const std::string value = quoted("a" + byte.escaped + "z");
        const std::string text = "a" + byte.text + "z";

        EXPECT_EQ("{\"accessToken\":" + value + ",\"serverEndpoint\":" + value +
                      ",\"serverCertificateName\":" + value + ",\"buildVersion\":" + value +
                      ",\"x86TargetPackageArchiveName\":" + value +
                      ",\"x64TargetPackageArchiveName\":" + value + "}",
                  serializeConfiguration({text, text, text, text, text, text}));
    }
}

TEST(AgentConfigurationJsonTest, WhatIsWrittenIsReadBack) {
    for (const EscapedText& byte : escapedTexts()) {
        const AgentConfiguration configuration{byte.text, "e" + byte.text, byte.text + "c",
                                               "b",       byte.text,       ""};

        EXPECT_EQ(configuration, parseConfiguration(serializeConfiguration(configuration)));
    }
}

TEST(AgentConfigurationJsonTest, NulOfASettingIsEscapedLikeAnyOtherControlByte) {
    EXPECT_EQ(R"({"accessToken":"\u0000","serverEndpoint":"e\u0000x","serverCertificateName":"",)"
              R"("buildVersion":"\u0000\u0000b","x86TargetPackageArchiveName":"a\u0000",)"
              R"("x64TargetPackageArchiveName":""})",
              serializeConfiguration(
                  {withNul("\0"), withNul("e\0x"), "", withNul("\0\0b"), withNul("a\0"), ""}));
}

TEST(AgentConfigurationJsonTest, SettingIsReadBackUpToItsNul) {
    EXPECT_EQ((AgentConfiguration{"t", "e", "", "", "", ""}),
              parseConfiguration(serializeConfiguration({withNul("t\0x"), "e", "", "", "", ""})));
}

}  // namespace

}  // namespace cagnt1
