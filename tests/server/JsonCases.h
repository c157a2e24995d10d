#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::test {

/// A text and its form inside a JSON string, as our writers make it.
struct EscapedText {
    std::string text;
    std::string escaped;
};

/// Every byte that has a form of its own or must not have one, except NUL.
inline std::vector<EscapedText> escapedTexts() {
    constexpr std::string_view kHexadecimal = "0123456789ABCDEF";
    std::vector<EscapedText> texts{
        {"\"", R"(\")"}, {"\\", R"(\\)"}, {"\b", R"(\b)"}, {"\t", R"(\t)"},
        {"\n", R"(\n)"}, {"\f", R"(\f)"}, {"\r", R"(\r)"}, {"/", "/"},
    };
    for (char byte = 1; byte < 0x20; ++byte) {
        if (byte == '\b' || byte == '\t' || byte == '\n' || byte == '\f' || byte == '\r') {
            continue;
        }
        const auto value = static_cast<unsigned>(byte);
        texts.push_back({std::string(1, byte), "\\u00" + std::string{kHexadecimal[value / 16],
                                                                     kHexadecimal[value % 16]}});
    }
    for (unsigned byte = 0x20; byte <= 0xFF; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        if (text != "\"" && text != "\\") {
            texts.push_back({text, text});
        }
    }
    return texts;
}

/// A text with its NUL, which a literal alone would end at.
template <std::size_t size>
std::string withNul(const char (&literal)[size]) {
    return {literal, size - 1};
}

/// Texts that are no JSON, made of `valid`, a text that is an object.
inline std::vector<std::string> spoiledTexts(const std::string& valid) {
    const std::string inner = valid.substr(1);
    return {
        valid + "x",
        valid + "{}",
        valid + ",",
        valid + "}",
        valid + "\f",
        valid + "\xC2\xA0",
        "x" + valid,
        "\f" + valid,
        "\xEF\xBB\xBF" + valid,
        "// comment\n" + valid,
        "/* comment */" + valid,
        valid + "// comment",
        valid + "/* comment */",
        "{/* comment */" + inner,
        "{// comment\n" + inner,
        "{," + inner,
        valid.substr(0, valid.size() - 1),
        valid.substr(0, valid.size() - 1) + ",}",
        R"({"n":NaN,)" + inner,
        R"({"n":Infinity,)" + inner,
        R"({"n":-Infinity,)" + inner,
        R"({"n":nan,)" + inner,
        R"({"n":01,)" + inner,
        R"({"n":+1,)" + inner,
        R"({"n":.5,)" + inner,
        R"({"n":1.,)" + inner,
        R"({"n":0x10,)" + inner,
        R"({"n":1e999,)" + inner,
        R"({"n":True,)" + inner,
        R"({"n":[1,],)" + inner,
        R"({"n":[1 2],)" + inner,
        R"({"n" 1,)" + inner,
        R"({n:1,)" + inner,
        R"({'n':1,)" + inner,
        R"({1:1,)" + inner,
        R"({"n":"\x41",)" + inner,
        R"({"n":"\u12",)" + inner,
        R"({"n":"\ud83d",)" + inner,
        R"({"n":"unfinished,)" + inner,
        "{\"n\":\"line\nfeed\"," + inner,
        "{\"n\":\"\x01\"," + inner,
    };
}

/// Opening and closing of `depth` arrays inside one another.
inline std::string nestedArrays(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

/// Deeper than any stack would carry, and far deeper than that.
constexpr std::size_t kGreatDepth = 1'000'000;
constexpr std::size_t kExtremeDepth = 10'000'000;

}  // namespace kolvan::test
