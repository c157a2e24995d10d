#include "companions/server/protocol/FormReader.h"

#include "companions/server/protocol/Base64Decoder.h"

#include <algorithm>
#include <iterator>

#include <string.h>

namespace kolvan::server::protocol {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::size_t kLongestBoundary = 70;

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character | 0x20) : character;
}

bool startsIgnoringCase(std::string_view text, std::string_view start) {
    return text.size() >= start.size() &&
           std::equal(start.begin(), start.end(), text.begin(),
                      [](char one, char other) { return lower(one) == lower(other); });
}

void skipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

// Reads a value with or without quotes and leaves what follows it. In quotes a backslash stands
// before a quote or a backslash that is meant; before anything else it is itself, as in the paths
// that some clients send.
std::optional<std::string> takeValue(std::string_view& rest) {
    std::string value;
    if (!rest.starts_with('"')) {
        const std::size_t end = std::min(rest.find_first_of("; \t"), rest.size());
        value = rest.substr(0, end);
        rest.remove_prefix(end);
        return value.empty() ? std::nullopt : std::optional(value);
    }
    rest.remove_prefix(1);
    while (!rest.empty()) {
        char character = rest.front();
        rest.remove_prefix(1);
        if (character == '"') {
            return value;
        }
        if (character == '\\' && (rest.starts_with('"') || rest.starts_with('\\'))) {
            character = rest.front();
            rest.remove_prefix(1);
        }
        value.push_back(character);
    }
    return std::nullopt;
}

// Finds a parameter in "type; name=value; name=value".
std::optional<std::string> parameterOf(std::string_view field, std::string_view wanted) {
    std::string_view rest = field.substr(std::min(field.find(';'), field.size()));
    while (rest.starts_with(';')) {
        rest.remove_prefix(1);
        skipBlanks(rest);
        const std::size_t sign = rest.find('=');
        if (sign == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view name = rest.substr(0, sign);
        rest.remove_prefix(sign + 1);
        std::optional<std::string> value = takeValue(rest);
        if (!value) {
            return std::nullopt;
        }
        if (name.size() == wanted.size() && startsIgnoringCase(name, wanted)) {
            return value;
        }
        skipBlanks(rest);
    }
    return std::nullopt;
}

bool isBoundary(std::string_view text) {
    constexpr std::string_view kAllowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789'()+_,-./:=? ";
    return !text.empty() && text.size() <= kLongestBoundary && text.back() != ' ' &&
           text.find_first_not_of(kAllowed) == std::string_view::npos;
}

}  // namespace

std::optional<std::string> formBoundary(std::string_view contentType) {
    constexpr std::string_view kType = "multipart/form-data";
    if (!startsIgnoringCase(contentType, kType)) {
        return std::nullopt;
    }
    std::optional<std::string> boundary = parameterOf(contentType, "boundary");
    return boundary && isBoundary(*boundary) ? boundary : std::nullopt;
}

// The line end before a boundary belongs to it. The first one has none before it, so one is put
// there.
FormReader::FormReader(const std::string& boundary, FormListener& events)
    : listener(events),
      delimiter("\r\n--" + boundary),
      kept(kLineEnd),
      position(-std::ssize(kLineEnd)) {}

void FormReader::put(std::string_view piece) {
    if (piece.empty()) {
        return;
    }
    // Nearly always nothing is kept, and the content of a part goes through as it has come.
    std::string joined;
    if (!kept.empty()) {
        joined.swap(kept);
        joined.append(piece);
        piece = joined;
    }
    rest = piece;
    while (takeSome()) {
    }
    kept = rest;
    rest = {};
}

bool FormReader::takeSome() {
    switch (state) {
        case State::Preamble:
            return skipToBoundary(false);
        case State::AfterBoundary:
            return takeAfterBoundary();
        case State::Head:
            return takeHead();
        case State::Data:
            return skipToBoundary(true);
        case State::Epilogue:
            break;
    }
    skip(rest.size());
    return false;
}

void FormReader::finish() const {
    if (state != State::Epilogue) {
        fail("The form ends too early", kept.size());
    }
}

bool FormReader::skipToBoundary(bool isData) {
    const void* const found =
        ::memmem(rest.data(), rest.size(), delimiter.data(), delimiter.size());
    std::size_t length = 0;
    if (found != nullptr) {
        length = static_cast<std::size_t>(static_cast<const char*>(found) - rest.data());
    } else {
        // The end may be the begin of a delimiter, which starts with its only '\r'.
        const std::size_t end = rest.size() - std::min(rest.size(), delimiter.size() - 1);
        const std::size_t last = rest.substr(end).rfind('\r');
        const bool split =
            last != std::string_view::npos && delimiter.starts_with(rest.substr(end + last));
        length = split ? end + last : rest.size();
    }
    if (isData && length != 0) {
        listener.data(rest.substr(0, length));
    }
    skip(length);
    if (found == nullptr) {
        return false;
    }
    if (isData) {
        listener.endPart();
    }
    state = State::AfterBoundary;
    skip(delimiter.size());
    return true;
}

bool FormReader::takeAfterBoundary() {
    // Blanks may stand behind a boundary.
    const std::size_t blanks = std::min(rest.find_first_not_of(" \t"), rest.size());
    if (blanks > kLongestHead) {
        fail("The line of a boundary is too long");
    }
    const std::string_view end = rest.substr(blanks);
    if (end.size() < 2) {
        return false;
    }
    if (end.starts_with("--")) {
        state = State::Epilogue;
        return true;
    }
    if (!end.starts_with(kLineEnd)) {
        fail("A line end is missing behind a boundary", blanks);
    }
    if (++parts > kMostParts) {
        fail("The form has too many parts");
    }
    // The line end stays: a head without any field is two of them.
    skip(blanks);
    state = State::Head;
    return true;
}

bool FormReader::takeHead() {
    const std::size_t end = rest.find(kHeadEnd);
    if (std::min(end, rest.size()) > kLongestHead) {
        fail("The head of a part is too long");
    }
    if (end == std::string_view::npos) {
        return false;
    }
    beginPart(rest.substr(0, end));
    state = State::Data;
    skip(end + kHeadEnd.size());
    return true;
}

void FormReader::skip(std::size_t length) {
    rest.remove_prefix(length);
    position += static_cast<std::int64_t>(length);
}

void FormReader::beginPart(std::string_view head) {
    constexpr std::string_view kField = "content-disposition:";
    while (!head.empty()) {
        head.remove_prefix(kLineEnd.size());
        const std::size_t end = std::min(head.find(kLineEnd), head.size());
        std::string_view line = head.substr(0, end);
        head.remove_prefix(end);
        if (!startsIgnoringCase(line, kField)) {
            continue;
        }
        line.remove_prefix(kField.size());
        skipBlanks(line);
        const std::optional<std::string> name = parameterOf(line, "name");
        if (startsIgnoringCase(line, "form-data") && name) {
            listener.beginPart(*name, parameterOf(line, "filename"));
            return;
        }
    }
    fail("A part of the form has no name");
}

void FormReader::fail(const char* what, std::size_t ahead) const {
    throw ProtocolError(what,
                        static_cast<std::uint64_t>(position + static_cast<std::int64_t>(ahead)));
}

}  // namespace kolvan::server::protocol
