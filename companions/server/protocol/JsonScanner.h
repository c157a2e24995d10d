#pragma once

#include "companions/server/protocol/Base64Decoder.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::protocol {

/// Is told what a text in JSON consists of, in its order. What it throws goes through to whoever
/// puts the text in.
class JsonListener {
public:
    virtual ~JsonListener() = default;

    virtual void beginObject() = 0;
    virtual void endObject() = 0;
    virtual void beginArray() = 0;
    virtual void endArray() = 0;

    /// A string begins: the name of a member, or a value. Its content comes in pieces, decoded.
    virtual void beginText(bool isName) = 0;
    virtual void text(std::string_view piece) = 0;
    virtual void endText() = 0;

    /// A number, "true", "false" or "null": which one is of no interest here.
    virtual void other() = 0;
};

/// Reads strict JSON (RFC 8259) that comes in pieces, without keeping any of it: a string of
/// gigabytes takes no more memory than a short one.
///
/// Bytes outside of ASCII pass through strings unchanged, whether they are UTF-8 or not, as the
/// protocol has it.
class JsonScanner {
public:
    /// Objects and arrays within each other.
    static constexpr std::size_t kDeepest = 32;

    /// @param events outlives the scanner
    explicit JsonScanner(JsonListener& events) : listener(events) {}

    /// Reads the next piece, which may end anywhere.
    /// @throws ProtocolError when it is no JSON; nothing can be put in any more then
    void put(std::string_view piece);

    /// Ends the text.
    /// @throws ProtocolError when it is not complete
    void finish();

private:
    enum class State {
        Value,         // a value has to come
        FirstElement,  // a value or the end of the array
        FirstName,     // a name or the end of the object
        Name,          // a name
        Colon,
        AfterValue,  // a comma, or an end
        Text,
        Escape,   // after a backslash
        Unicode,  // after "\u"
        Word,     // within true, false or null
        Number,
    };

    /// Where in a number we are, in the words of the grammar.
    enum class NumberPart {
        Sign,
        Zero,
        Integer,
        Point,
        Fraction,
        Exponent,
        ExponentSign,
        ExponentDigits
    };

    std::size_t takeText(std::string_view rest);
    void take(char character);
    void beginValue(char character);
    void takeEscape(char character);
    void takeUnicode(char character);
    void takeUnit();
    bool takeNumber(char character);
    void endText();
    void endValue() { state = State::AfterValue; }
    void open(char bracket);
    void close(char bracket);
    [[noreturn]] void fail(const char* what) const;

    JsonListener& listener;
    State state = State::Value;
    std::vector<char> brackets;  // that are not closed yet
    bool textIsName = false;
    std::string_view word;  // what is left of it
    NumberPart number = NumberPart::Sign;
    std::uint32_t unit = 0;      // UTF-16
    int unitDigits = 0;          // of it so far
    std::uint32_t highHalf = 0;  // of a pair whose other half has to come; 0 for none
    std::uint64_t position = 0;  // bytes taken
};

}  // namespace kolvan::server::protocol
