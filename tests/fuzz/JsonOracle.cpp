#include "tests/fuzz/JsonOracle.h"

#include "tests/fuzz/Fuzz.h"

#include <cstddef>
#include <utility>

namespace kolvan::fuzz {

namespace {

constexpr int kMaxDepth = 200;
constexpr std::size_t kMaxDigits = 100;

struct NotJson {};

class Reader {
public:
    explicit Reader(std::string source) : text(std::move(source)) {}

    Json document() {
        Json json = value(0);
        skipBlanks();
        if (position != text.size()) {
            throw NotJson();
        }
        return json;
    }

private:
    char peek() const { return position < text.size() ? text[position] : '\0'; }
    char take() {
        const char character = peek();
        if (character == '\0') {
            throw NotJson();
        }
        ++position;
        return character;
    }
    bool skip(char wanted) {
        const bool found = peek() == wanted;
        position += found ? 1 : 0;
        return found;
    }
    void expect(std::string_view wanted) {
        for (const char character : wanted) {
            if (take() != character) {
                throw NotJson();
            }
        }
    }
    void skipBlanks() {
        position = text.find_first_not_of(" \t\n\r", position);
        position = position == std::string::npos ? text.size() : position;
    }

    Json value(int depth) {
        if (depth > kMaxDepth) {
            throw Undecided();
        }
        skipBlanks();
        switch (peek()) {
            case '{':
                return object(depth);
            case '[':
                return array(depth);
            case '"':
                return {Json::Kind::Text, string(), {}, {}};
            case 't':
                expect("true");
                return {};
            case 'f':
                expect("false");
                return {};
            case 'n':
                expect("null");
                return {};
            default:
                number();
                return {};
        }
    }

    Json object(int depth) {
        Json json{Json::Kind::Object, {}, {}, {}};
        expect("{");
        skipBlanks();
        if (skip('}')) {
            return json;
        }
        do {
            skipBlanks();
            std::string name = string();
            skipBlanks();
            expect(":");
            json.members.push_back({std::move(name), value(depth + 1)});
            skipBlanks();
        } while (skip(','));
        expect("}");
        return json;
    }

    Json array(int depth) {
        Json json{Json::Kind::Array, {}, {}, {}};
        expect("[");
        skipBlanks();
        if (skip(']')) {
            return json;
        }
        do {
            json.elements.push_back(value(depth + 1));
            skipBlanks();
        } while (skip(','));
        expect("]");
        return json;
    }

    std::string string() {
        std::string content;
        expect("\"");
        while (!skip('"')) {
            const char character = take();
            if (static_cast<unsigned char>(character) < 0x20) {
                throw NotJson();
            }
            content += character == '\\' ? escape() : std::string(1, character);
        }
        return content;
    }

    std::string escape() {
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
        const char letter = take();
        if (letter == 'u') {
            return utf8(codePoint());
        }
        const std::size_t index = kLetters.find(letter);
        if (index == std::string_view::npos) {
            throw NotJson();
        }
        return std::string(1, kMeanings[index]);
    }

    unsigned codePoint() {
        const unsigned first = hexadecimal();
        if (first < 0xD800 || first > 0xDFFF) {
            return first;
        }
        if (first > 0xDBFF) {
            throw Undecided();
        }
        expect("\\u");
        const unsigned second = hexadecimal();
        if (second < 0xDC00 || second > 0xDFFF) {
            throw NotJson();
        }
        return 0x10000 + ((first - 0xD800) << 10U) + (second - 0xDC00);
    }

    unsigned hexadecimal() {
        unsigned number = 0;
        for (int digit = 0; digit < 4; ++digit) {
            const std::size_t index = std::string_view("0123456789abcdefABCDEF").find(take());
            if (index == std::string_view::npos) {
                throw NotJson();
            }
            number = number * 16 + static_cast<unsigned>(index < 16 ? index : index - 6);
        }
        return number;
    }

    static std::string utf8(unsigned code) {
        const auto byte = [](unsigned bits) { return static_cast<char>(bits); };
        const auto tail = [&](unsigned shift) { return byte(0x80U | ((code >> shift) & 0x3FU)); };
        if (code < 0x80) {
            return {byte(code)};
        }
        if (code < 0x800) {
            return {byte(0xC0U | (code >> 6U)), tail(0)};
        }
        if (code < 0x10000) {
            return {byte(0xE0U | (code >> 12U)), tail(6), tail(0)};
        }
        return {byte(0xF0U | (code >> 18U)), tail(12), tail(6), tail(0)};
    }

    std::size_t digits() {
        const std::size_t begin = position;
        while (peek() >= '0' && peek() <= '9') {
            ++position;
        }
        if (position == begin) {
            throw NotJson();
        }
        return position - begin;
    }

    void number() {
        (void)skip('-');
        std::size_t length = skip('0') ? 1 : digits();
        if (skip('.')) {
            length += digits();
        }
        std::size_t exponent = 0;
        if (skip('e') || skip('E')) {
            (void)(skip('+') || skip('-'));
            exponent = digits();
        }
        if (length > kMaxDigits || exponent > 2) {
            throw Undecided();
        }
    }

    const std::string text;
    std::size_t position = 0;
};

}  // namespace

const Json* Json::member(std::string_view name) const {
    for (const auto& [memberName, value] : members) {
        if (memberName == name) {
            return &value;
        }
    }
    return nullptr;
}

std::string Json::asText() const {
    return kind == Kind::Text ? upToNul(text) : std::string();
}

std::optional<Json> readJson(std::string_view text) {
    try {
        return Reader(upToNul(text)).document();
    } catch (const NotJson&) {
        return std::nullopt;
    }
}

}  // namespace kolvan::fuzz
