#include "companions/check/JsonOutline.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

namespace kolvan::check {

namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr unsigned kStrict = rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag;
constexpr unsigned kWithComments = kStrict | rapidjson::kParseCommentsFlag;
constexpr unsigned kWithEncoding = kWithComments | rapidjson::kParseValidateEncodingFlag;

// A text up to its first NUL. The library's own stream is copied while a string is read, so that
// its position would be stale in the calls that tell of keys.
class TextStream {
public:
    using Ch = char;

    explicit TextStream(std::string_view whole) : text(whole.substr(0, whole.find('\0'))) {}

    char Peek() const { return position < text.size() ? text[position] : '\0'; }
    char Take() {
        const char character = Peek();
        ++position;
        return character;
    }
    std::size_t Tell() const { return position; }

    // Only for parsing in place, which nobody asks for.
    char* PutBegin() { return nullptr; }
    void Put(char) {}
    void Flush() {}
    std::size_t PutEnd(char*) { return 0; }

private:
    std::string_view text;
    std::size_t position = 0;
};

// Of the string whose closing quote stands before `end`.
std::size_t openingQuote(std::string_view text, std::size_t end) {
    std::size_t quote = end - 1;
    bool escaped = true;
    while (escaped) {
        quote = text.rfind('"', quote - 1);
        const std::size_t other = text.find_last_not_of('\\', quote - 1);
        escaped = (quote - other) % 2 == 0;  // an odd number of backslashes stands before it
    }
    return quote;
}

// Keeps the members of the outermost object.
class OutlineHandler {
public:
    using Ch = char;

    OutlineHandler(JsonOutline& filled, const TextStream& source, std::string_view whole)
        : outline(filled), stream(source), text(whole) {}

    bool Null() { return value(JsonKind::Null); }
    bool Bool(bool) { return value(JsonKind::Boolean); }
    bool Int(int) { return value(JsonKind::Number); }
    bool Uint(unsigned) { return value(JsonKind::Number); }
    bool Int64(std::int64_t) { return value(JsonKind::Number); }
    bool Uint64(std::uint64_t) { return value(JsonKind::Number); }
    bool Double(double) { return value(JsonKind::Number); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return value(JsonKind::Number); }
    bool String(const char* content, rapidjson::SizeType length, bool) {
        return value(JsonKind::Text, {content, length});
    }
    bool Key(const char* content, rapidjson::SizeType length, bool) {
        if (depth == 1) {
            outline.members.push_back(
                {{content, length}, openingQuote(text, stream.Tell()), JsonKind::Null, {}});
        }
        return true;
    }
    bool StartObject() { return open(JsonKind::Object); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(JsonKind::Array); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    bool value(JsonKind kind, std::string content = {}) {
        if (depth == 0) {
            outline.kind = kind;
        } else if (depth == 1 && outline.kind == JsonKind::Object) {
            outline.members.back().kind = kind;
            outline.members.back().text = std::move(content);
        }
        return true;
    }
    bool open(JsonKind kind) {
        (void)value(kind);
        ++depth;
        return true;
    }
    bool close() {
        --depth;
        return true;
    }

    JsonOutline& outline;
    const TextStream& stream;
    const std::string_view text;
    std::size_t depth = 0;
};

template <unsigned Flags>
rapidjson::ParseResult parse(std::string_view text, std::size_t begin, JsonOutline& outline) {
    outline.kind.reset();
    outline.members.clear();
    TextStream stream(text);
    for (std::size_t i = 0; i < begin; ++i) {
        (void)stream.Take();
    }
    OutlineHandler handler(outline, stream, text);
    rapidjson::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<Flags>(stream, handler);
    if (result.IsError()) {
        outline.kind.reset();
        outline.members.clear();
    }
    return result;
}

// What a person has probably done, where it can be recognised; otherwise the library's words.
JsonMistake mistakeAt(std::string_view text, const rapidjson::ParseResult& result) {
    const std::size_t offset = std::min(result.Offset(), text.size());
    const std::string_view rest = text.substr(offset);
    const std::size_t previous =
        offset == 0 ? std::string_view::npos : text.find_last_not_of(kWhiteSpace, offset - 1);
    const bool afterComma = previous != std::string_view::npos && text[previous] == ',';
    if (rest.starts_with("//") || rest.starts_with("/*") || rest.starts_with("#")) {
        return {Severity::Error, "comment", offset, "A comment; JSON has none."};
    }
    if (afterComma && (rest.starts_with("}") || rest.starts_with("]"))) {
        return {Severity::Error, "broken-json", previous,
                "A comma after the last entry; JSON has commas only between two entries."};
    }
    if (rest.starts_with("'")) {
        return {Severity::Error, "broken-json", offset,
                "A single quote; texts in JSON stand in double quotes."};
    }
    if (rest.find_first_not_of(kWhiteSpace) == std::string_view::npos) {
        return {Severity::Error, "broken-json", offset,
                previous == std::string_view::npos ? "There is no text in this file."
                                                   : "The text ends in the middle of the JSON."};
    }
    switch (result.Code()) {
        case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
            return {Severity::Error, "broken-json", offset,
                    "A comma or a closing brace is missing before this."};
        case rapidjson::kParseErrorObjectMissColon:
            return {Severity::Error, "broken-json", offset, "A colon is missing before this."};
        case rapidjson::kParseErrorObjectMissName:
            return {Severity::Error, "broken-json", offset,
                    "A key in double quotes is missing here."};
        case rapidjson::kParseErrorStringInvalidEncoding:
            return {Severity::Warning, "encoding", offset,
                    "This is not UTF-8, which whoever reads the agent's messages expects."};
        default:
            return {Severity::Error, "broken-json", offset,
                    rapidjson::GetParseError_En(result.Code())};
    }
}

}  // namespace

JsonOutline outlineOf(const std::string& text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    JsonOutline outline;
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF")) {
        outline.mistakes.push_back(
            {Severity::Error, "encoding", 0, "The file is UTF-16; it has to be UTF-8."});
        return outline;
    }
    std::size_t begin = 0;
    if (text.starts_with(kByteOrderMark)) {
        begin = kByteOrderMark.size();
        outline.mistakes.push_back(
            {Severity::Error, "byte-order-mark", 0,
             "The file begins with a byte-order mark; save it as UTF-8 without one."});
    }
    rapidjson::ParseResult result = parse<kStrict>(text, begin, outline);
    if (result.IsError()) {
        outline.mistakes.push_back(mistakeAt(text, result));
        // The library can read on after "/*" and "//", and knows no other comments.
        if (outline.mistakes.back().topic != "comment" || text[result.Offset()] != '/') {
            return outline;
        }
        result = parse<kWithComments>(text, begin, outline);
        if (result.IsError()) {
            outline.mistakes.push_back(mistakeAt(text, result));
            return outline;
        }
    }
    JsonOutline unused;
    if (const rapidjson::ParseResult encoded = parse<kWithEncoding>(text, begin, unused);
        encoded.IsError()) {
        outline.mistakes.push_back(mistakeAt(text, encoded));
    }
    if (const std::size_t end = text.find('\0'); end != std::string::npos) {
        outline.mistakes.push_back({Severity::Warning, "nul", end,
                                    "A NUL byte; the agent reads the file only up to here."});
    }
    return outline;
}

}  // namespace kolvan::check
