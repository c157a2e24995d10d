#include "companions/server/api/JsonWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace kolvan::server::api {
namespace {

template <typename Value>
std::string written(const Value& value) {
    JsonWriter json;
    json.value(value);
    return json.text();
}

TEST(JsonWriterTest, ObjectsAndArraysStandInEachOther) {
    JsonWriter json;
    json.object([&] {
        json.member("one", 1);
        json.name("list");
        json.array([&] {
            json.value(true);
            json.null();
            json.object([] {});
        });
    });

    EXPECT_EQ(R"({"one":1,"list":[true,null,{}]})", json.text());
}

TEST(JsonWriterTest, NumbersAreWholeAtTheirLimits) {
    EXPECT_EQ("18446744073709551615", written(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ("-9223372036854775808", written(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ("1.5", written(1.5));
}

TEST(JsonWriterTest, WhatIsNoNumberIsNull) {
    JsonWriter json;
    json.array([&] {
        json.value(std::numeric_limits<double>::infinity());
        json.value(std::numeric_limits<double>::quiet_NaN());
        json.value(1.0);
    });

    EXPECT_EQ("[null,null,1.0]", json.text());
}

TEST(JsonWriterTest, WhatIsMissingIsNull) {
    EXPECT_EQ("null", written(std::optional<std::string>()));
    EXPECT_EQ("\"a\"", written(std::optional<std::string>("a")));
}

TEST(JsonWriterTest, BytesThatAreNoTextAreReplaced) {
    EXPECT_EQ("\"a\xEF\xBF\xBD\xEF\xBF\xBD\"", written(std::string("a\xFF\xC3")));
    EXPECT_EQ("\"\xC3\xA4\xF0\x9F\x98\x80\"", written(std::string("\xC3\xA4\xF0\x9F\x98\x80")));
}

TEST(JsonWriterTest, ControlCharactersAndQuotesAreEscaped) {
    EXPECT_EQ(R"("\u0000\u0001\n\r\t\u001B\"\\")", written(std::string("\0\x01\n\r\t\x1B\"\\", 8)));
}

TEST(JsonWriterTest, MomentIsAsRfc3339HasIt) {
    EXPECT_EQ("\"2026-01-02T03:04:05.006Z\"",
              written(fromRfc3339("2026-01-02T03:04:05.006Z").value()));
}

}  // namespace
}  // namespace kolvan::server::api
