#include "companions/server/protocol/FormReader.h"

#include "companions/server/protocol/Base64Decoder.h"

#include <algorithm>

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
    if (state == State::Epilogue) {
        return;
    }
    kept.append(piece);
    for (bool more = true; more;) {
        switch (state) {
            case State::Preamble:
                more = skipToBoundary(false);
                break;
            case State::AfterBoundary:
                more = takeAfterBoundary();
                break;
            case State::Head:
                more = takeHead();
                break;
            case State::Data:
                more = skipToBoundary(true);
                break;
            case State::Epilogue:
                kept.clear();
                more = false;
                break;
        }
    }
}

void FormReader::finish() const {
    if (state != State::Epilogue) {
        fail("The form ends too early", kept.size());
    }
}

// Every function takes something out of `kept` and returns whether there may be more to take.
bool FormReader::skipToBoundary(bool isData) {
    const std::size_t found = kept.find(delimiter);
    std::size_t length = found;
    if (found == std::string::npos) {
        // The end may be the begin of a delimiter.
        const std::size_t uncertain = kept.rfind('\r');
        const bool split = uncertain != std::string::npos &&
                           kept.size() - uncertain < delimiter.size() &&
                           delimiter.starts_with(std::string_view(kept).substr(uncertain));
        length = split ? uncertain : kept.size();
    }
    if (isData && length != 0) {
        listener.data(std::string_view(kept).substr(0, length));
    }
    if (found != std::string::npos) {
        if (isData) {
            listener.endPart();
        }
        state = State::AfterBoundary;
        length += delimiter.size();
    }
    kept.erase(0, length);
    position += static_cast<std::int64_t>(length);
    return found != std::string::npos;
}

bool FormReader::takeAfterBoundary() {
    // Blanks may stand behind a boundary.
    const std::size_t blanks = std::min(kept.find_first_not_of(" \t"), kept.size());
    if (blanks > kLongestHead) {
        fail("The line of a boundary is too long");
    }
    const std::string_view rest = std::string_view(kept).substr(blanks);
    if (rest.size() < 2) {
        return false;
    }
    if (rest.starts_with("--")) {
        state = State::Epilogue;
        return true;
    }
    if (!rest.starts_with(kLineEnd)) {
        fail("A line end is missing behind a boundary", blanks);
    }
    if (++parts > kMostParts) {
        fail("The form has too many parts");
    }
    // The line end stays: a head without any field is two of them.
    kept.erase(0, blanks);
    position += static_cast<std::int64_t>(blanks);
    state = State::Head;
    return true;
}

bool FormReader::takeHead() {
    const std::size_t end = kept.find(kHeadEnd);
    if (std::min(end, kept.size()) > kLongestHead) {
        fail("The head of a part is too long");
    }
    if (end == std::string::npos) {
        return false;
    }
    beginPart(std::string_view(kept).substr(0, end));
    state = State::Data;
    kept.erase(0, end + kHeadEnd.size());
    position += static_cast<std::int64_t>(end + kHeadEnd.size());
    return true;
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
