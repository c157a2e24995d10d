#include "companions/server/protocol/JsonScanner.h"

#include <emmintrin.h>

namespace kolvan::server::protocol {
namespace {

constexpr std::size_t kBlock = 64;

bool isBlank(char character) {
    return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// A quote, a backslash or what may not stand in a string.
bool isSpecial(char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == '"' || character == '\\';
}

// Sixteen characters at a time: a byte is not zero where one is special.
__m128i specialOf(const char* text) {
    const __m128i letters = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i lastControl = _mm_set1_epi8(0x1F);
    const __m128i isControl = _mm_cmpeq_epi8(_mm_max_epu8(letters, lastControl), lastControl);
    const __m128i isQuote = _mm_cmpeq_epi8(letters, _mm_set1_epi8('"'));
    const __m128i isBackslash = _mm_cmpeq_epi8(letters, _mm_set1_epi8('\\'));
    return _mm_or_si128(isControl, _mm_or_si128(isQuote, isBackslash));
}

bool anyIn(__m128i found) {
    return _mm_movemask_epi8(found) != 0;
}

// Length of the text before the first special character. This is where output goes through.
std::size_t plainLength(std::string_view text) {
    std::size_t length = 0;
    while (length + kBlock <= text.size()) {
        const char* const block = text.data() + length;
        if (anyIn(_mm_or_si128(_mm_or_si128(specialOf(block), specialOf(block + 16)),
                               _mm_or_si128(specialOf(block + 32), specialOf(block + 48))))) {
            break;
        }
        length += kBlock;
    }
    while (length < text.size() && !isSpecial(text[length])) {
        ++length;
    }
    return length;
}

int hexadecimal(char digit) {
    if (isDigit(digit)) {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string utf8(std::uint32_t code) {
    const auto tail = [code](unsigned shift) {
        return static_cast<char>(0x80U | ((code >> shift) & 0x3FU));
    };
    if (code < 0x80) {
        return {static_cast<char>(code)};
    }
    if (code < 0x800) {
        return {static_cast<char>(0xC0U | (code >> 6U)), tail(0)};
    }
    if (code < 0x10000) {
        return {static_cast<char>(0xE0U | (code >> 12U)), tail(6), tail(0)};
    }
    return {static_cast<char>(0xF0U | (code >> 18U)), tail(12), tail(6), tail(0)};
}

}  // namespace

void JsonScanner::put(std::string_view piece) {
    while (!piece.empty()) {
        std::size_t taken = state == State::Text ? takeText(piece) : 0;
        if (taken == 0) {
            take(piece.front());
            taken = 1;
        }
        position += taken;
        piece.remove_prefix(taken);
    }
}

void JsonScanner::finish() {
    if (state == State::Number && brackets.empty() && takeNumber(' ')) {
        fail("A number is cut off");
    }
    if (state != State::AfterValue || !brackets.empty()) {
        fail("The JSON ends too early");
    }
}

std::size_t JsonScanner::takeText(std::string_view rest) {
    const std::size_t length = plainLength(rest);
    if (length != 0) {
        if (highHalf != 0) {
            fail("Half a character is missing");
        }
        listener.text(rest.substr(0, length));
    }
    return length;
}

void JsonScanner::take(char character) {
    switch (state) {
        case State::Text:
            if (character == '\\') {
                state = State::Escape;
            } else if (character == '"') {
                endText();
            } else {
                fail("A control character stands in a string");
            }
            return;
        case State::Escape:
            takeEscape(character);
            return;
        case State::Unicode:
            takeUnicode(character);
            return;
        case State::Word:
            if (character != word.front()) {
                fail("This is no JSON");
            }
            word.remove_prefix(1);
            if (word.empty()) {
                endValue();
            }
            return;
        case State::Number:
            if (takeNumber(character)) {
                return;
            }
            break;  // the number has ended before it
        default:
            break;
    }
    if (isBlank(character)) {
        return;
    }
    switch (state) {
        case State::FirstElement:
            if (character == ']') {
                close(character);
                return;
            }
            beginValue(character);
            return;
        case State::Value:
            beginValue(character);
            return;
        case State::FirstName:
            if (character == '}') {
                close(character);
                return;
            }
            [[fallthrough]];
        case State::Name:
            if (character != '"') {
                fail("The name of a member is missing");
            }
            textIsName = true;
            state = State::Text;
            listener.beginText(true);
            return;
        case State::Colon:
            if (character != ':') {
                fail("A colon is missing");
            }
            state = State::Value;
            return;
        default:
            if (brackets.empty()) {
                fail("Something follows the JSON");
            }
            if (character == ',') {
                state = brackets.back() == '{' ? State::Name : State::Value;
            } else {
                close(character);
            }
    }
}

void JsonScanner::beginValue(char character) {
    switch (character) {
        case '{':
        case '[':
            open(character);
            return;
        case '"':
            textIsName = false;
            state = State::Text;
            listener.beginText(false);
            return;
        case 't':
            word = "rue";
            state = State::Word;
            break;
        case 'f':
            word = "alse";
            state = State::Word;
            break;
        case 'n':
            word = "ull";
            state = State::Word;
            break;
        default:
            number = NumberPart::Sign;
            state = State::Number;
            if (character != '-' && !isDigit(character)) {
                fail("This is no JSON");
            }
            if (character != '-') {
                number = character == '0' ? NumberPart::Zero : NumberPart::Integer;
            }
    }
    listener.other();
}

void JsonScanner::takeEscape(char character) {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (character == 'u') {
        unit = 0;
        unitDigits = 0;
        state = State::Unicode;
        return;
    }
    const std::size_t index = kLetters.find(character);
    if (index == std::string_view::npos) {
        fail("This escape is unknown");
    }
    if (highHalf != 0) {
        fail("Half a character is missing");
    }
    state = State::Text;
    listener.text(kMeanings.substr(index, 1));
}

void JsonScanner::takeUnicode(char character) {
    const int digit = hexadecimal(character);
    if (digit < 0) {
        fail("A hexadecimal digit is missing");
    }
    unit = unit * 16 + static_cast<std::uint32_t>(digit);
    if (++unitDigits == 4) {
        state = State::Text;
        takeUnit();
    }
}

// Characters beyond 16 bits come as two halves.
void JsonScanner::takeUnit() {
    const bool isHigh = unit >= 0xD800 && unit < 0xDC00;
    const bool isLow = unit >= 0xDC00 && unit < 0xE000;
    if (isLow != (highHalf != 0)) {
        fail("Half a character is missing");
    }
    if (isHigh) {
        highHalf = unit;
        return;
    }
    const std::uint32_t code =
        isLow ? 0x10000 + ((highHalf - 0xD800) << 10U) + (unit - 0xDC00) : unit;
    highHalf = 0;
    listener.text(utf8(code));
}

// False: the number is over, and the character does not belong to it.
bool JsonScanner::takeNumber(char character) {
    const bool digit = isDigit(character);
    const bool exponent = character == 'e' || character == 'E';
    switch (number) {
        case NumberPart::Sign:
            number = character == '0' ? NumberPart::Zero : NumberPart::Integer;
            break;
        case NumberPart::Zero:
        case NumberPart::Integer:
            if (digit && number == NumberPart::Integer) {
                return true;
            }
            if (character == '.') {
                number = NumberPart::Point;
                return true;
            }
            if (exponent) {
                number = NumberPart::Exponent;
                return true;
            }
            endValue();
            return false;
        case NumberPart::Point:
            number = NumberPart::Fraction;
            break;
        case NumberPart::Fraction:
            if (exponent) {
                number = NumberPart::Exponent;
                return true;
            }
            if (!digit) {
                endValue();
            }
            return digit;
        case NumberPart::Exponent:
            if (character == '+' || character == '-') {
                number = NumberPart::ExponentSign;
                return true;
            }
            number = NumberPart::ExponentDigits;
            break;
        case NumberPart::ExponentSign:
            number = NumberPart::ExponentDigits;
            break;
        case NumberPart::ExponentDigits:
            if (!digit) {
                endValue();
            }
            return digit;
    }
    // What is left are the places where there has to be a digit.
    if (!digit) {
        fail("A digit is missing");
    }
    return true;
}

void JsonScanner::endText() {
    if (highHalf != 0) {
        fail("Half a character is missing");
    }
    if (textIsName) {
        state = State::Colon;
    } else {
        endValue();
    }
    listener.endText();
}

void JsonScanner::open(char bracket) {
    if (brackets.size() == kDeepest) {
        fail("The JSON is too deep");
    }
    brackets.push_back(bracket);
    if (bracket == '{') {
        state = State::FirstName;
        listener.beginObject();
    } else {
        state = State::FirstElement;
        listener.beginArray();
    }
}

void JsonScanner::close(char bracket) {
    const bool object = bracket == '}';
    if ((!object && bracket != ']') || brackets.back() != (object ? '{' : '[')) {
        fail("A comma or the end of an object or array is missing");
    }
    brackets.pop_back();
    endValue();
    if (object) {
        listener.endObject();
    } else {
        listener.endArray();
    }
}

void JsonScanner::fail(const char* what) const {
    throw ProtocolError(what, position);
}

}  // namespace kolvan::server::protocol
