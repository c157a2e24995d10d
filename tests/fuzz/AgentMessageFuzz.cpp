// The input is the body of a message as a server reads it.
#include "companions/server/protocol/JsonScanner.h"
#include "companions/server/protocol/MessageReader.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/JsonOracle.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::server::protocol;

// Puts a text into a reader in pieces of one length.
template <typename Reader>
void putInPieces(Reader& reader, std::string_view text, std::size_t length) {
    while (!text.empty()) {
        reader.put(text.substr(0, length));
        text.remove_prefix(std::min(length, text.size()));
    }
}

// Makes of what the scanner says what the oracle makes of the text.
class Builder final : public JsonListener {
public:
    void beginObject() override { open(Json::Kind::Object); }
    void endObject() override { close(); }
    void beginArray() override { open(Json::Kind::Array); }
    void endArray() override { close(); }
    void beginText(bool isName) override {
        content.clear();
        textIsName = isName;
    }
    void text(std::string_view piece) override {
        require(!piece.empty(), "a piece of a string is not empty");
        content += piece;
    }
    void endText() override {
        if (textIsName) {
            names.back() = content;
        } else {
            add({Json::Kind::Text, content, {}, {}});
        }
    }
    void other() override { add({}); }

    std::optional<Json> root;

private:
    void open(Json::Kind kind) {
        stack.push_back({kind, {}, {}, {}});
        names.emplace_back();
    }
    void close() {
        Json json = std::move(stack.back());
        stack.pop_back();
        names.pop_back();
        add(std::move(json));
    }
    void add(Json json) {
        if (stack.empty()) {
            require(!root, "a text is one value");
            root = std::move(json);
        } else if (stack.back().kind == Json::Kind::Object) {
            stack.back().members.push_back({names.back(), std::move(json)});
        } else {
            stack.back().elements.push_back(std::move(json));
        }
    }

    std::vector<Json> stack;
    std::vector<std::string> names;
    std::string content;
    bool textIsName = false;
};

void requireSame(const Json& expected, const Json& actual) {
    require(expected.kind == actual.kind, "the kind of a value");
    requireEqual(expected.text, actual.text, "the text of a value");
    require(expected.members.size() == actual.members.size() &&
                expected.elements.size() == actual.elements.size(),
            "as many values within");
    for (std::size_t index = 0; index < expected.members.size(); ++index) {
        requireEqual(expected.members[index].name, actual.members[index].name, "a name");
        requireSame(expected.members[index].value, actual.members[index].value);
    }
    for (std::size_t index = 0; index < expected.elements.size(); ++index) {
        requireSame(expected.elements[index], actual.elements[index]);
    }
}

struct Scan {
    std::optional<Json> json;
    std::string error;
};

Scan scan(const std::string& text, std::size_t length) {
    Builder builder;
    JsonScanner scanner(builder);
    try {
        putInPieces(scanner, text, length);
        scanner.finish();
    } catch (const ProtocolError& error) {
        require(error.place() <= text.size(), "an error lies in the text, or at its end");
        return {std::nullopt, error.what()};
    }
    require(builder.root.has_value(), "a text that is read has a value");
    return {builder.root, {}};
}

struct Reading {
    std::optional<AgentMessage> message;
    std::string output;
};

Reading read(const std::string& text, std::size_t length) {
    Reading reading;
    MessageReader reader([&reading](const AgentMessage& /*known*/, std::string_view bytes) {
        require(!bytes.empty(), "output is handed on when there is some");
        reading.output += bytes;
    });
    try {
        putInPieces(reader, text, length);
        reading.message = reader.finish();
        require(reading.output.size() == reader.outputSize(), "all output is handed on");
    } catch (const ProtocolError&) {
        return {};
    }
    return reading;
}

// Base64, the slow way.
std::string encode(std::string_view bytes) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bits;
    for (const char byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            bits.push_back((static_cast<unsigned char>(byte) >> bit & 1) != 0 ? '1' : '0');
        }
    }
    bits.resize((bits.size() + 5) / 6 * 6, '0');
    std::string text;
    for (std::size_t index = 0; index < bits.size(); index += 6) {
        text.push_back(kAlphabet[std::stoul(bits.substr(index, 6), nullptr, 2)]);
    }
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

void checkAgainstOracle(const Json& json, const Reading& reading) {
    std::string type;
    std::map<std::string, std::string> parameters;
    std::string output;
    require(json.kind == Json::Kind::Object, "a message is an object");
    for (const auto& [name, value] : json.members) {
        if (upToNul(name) == "messageType" && value.kind == Json::Kind::Text) {
            type = value.asText();
        }
        if (upToNul(name) != "messageParameters" || value.kind != Json::Kind::Object) {
            continue;
        }
        for (const auto& [parameter, content] : value.members) {
            if (upToNul(parameter) == "message" && content.kind == Json::Kind::Text) {
                output += content.text;
            } else if (upToNul(parameter) != "message") {
                parameters[upToNul(parameter)] = content.asText();
            }
        }
    }
    requireEqual(type, reading.message->type, "the type of the message");
    require(parameters == reading.message->parameters, "the parameters of the message");
    requireEqual(output, encode(reading.output), "the output is what the Base64 says");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Scan whole = scan(text, text.size() + 1);
    const Reading reading = read(text, text.size() + 1);
    for (const std::size_t length : {1U, 7U}) {
        requireEqual(whole.error, scan(text, length).error, "pieces make no difference");
        const Reading again = read(text, length);
        require(reading.message == again.message, "pieces make no difference to the message");
        requireEqual(reading.output, again.output, "nor to its output");
    }
    if (text.find('\0') != std::string::npos || whole.error.starts_with("The JSON is too deep")) {
        return 0;  // the oracle reads up to a NUL, and deeper
    }
    try {
        const std::optional<Json> json = readJson(text);
        require(json.has_value() == whole.json.has_value(), "what is JSON is read");
        if (json) {
            requireSame(*json, *whole.json);
            if (reading.message) {
                checkAgainstOracle(*json, reading);
            }
        }
    } catch (const Undecided&) {
        // Nothing to compare with.
    }
    return 0;
}
