// The input is messages, one a line: a type and parameters, separated by commas; a parameter's name
// ends at its first "=".
#include "server/MessageJson.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/JsonOracle.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using cagnt1::Message;
using namespace kolvan::fuzz;

Message messageFrom(const std::string& line) {
    const std::vector<std::string> pieces = split(line, ',');
    Message message{pieces.front(), {}};
    for (std::size_t index = 1; index < pieces.size(); ++index) {
        const std::size_t end = std::min(pieces[index].find('='), pieces[index].size());
        message.parameters[pieces[index].substr(0, end)] =
            pieces[index].substr(std::min(end + 1, pieces[index].size()));
    }
    return message;
}

// What arrives: every text up to its NUL; of names that become equal the last one counts.
Message arrived(const Message& message) {
    Message expected{upToNul(message.type), {}};
    for (const auto& [name, value] : message.parameters) {
        expected.parameters[upToNul(name)] = upToNul(value);
    }
    return expected;
}

std::string quoted(const std::string& text) {
    std::string json = "\"";
    for (const char character : upToNul(text)) {
        const auto code = static_cast<unsigned char>(character);
        char escaped[8];
        switch (character) {
            case '"':
                json += "\\\"";
                break;
            case '\\':
                json += "\\\\";
                break;
            case '\b':
                json += "\\b";
                break;
            case '\t':
                json += "\\t";
                break;
            case '\n':
                json += "\\n";
                break;
            case '\f':
                json += "\\f";
                break;
            case '\r':
                json += "\\r";
                break;
            default:
                (void)std::snprintf(escaped, sizeof(escaped), "\\u%04X", code);
                json += code < 0x20 ? std::string(escaped) : std::string(1, character);
        }
    }
    return json + "\"";
}

std::string written(const Message& message) {
    std::string json = "{\"messageType\":" + quoted(message.type) + ",\"messageParameters\":{";
    for (const auto& [name, value] : message.parameters) {
        json += (json.back() == '{' ? "" : ",") + quoted(name) + ":" + quoted(value);
    }
    return json + "}}";
}

void checkEqual(const Message& expected, const Message& actual) {
    requireEqual(expected.type, actual.type, "a type survives");
    require(expected.parameters == actual.parameters, "parameters survive");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<Message> messages;
    for (const std::string& line : split(input, '\n')) {
        messages.push_back(messageFrom(line));
        const std::string json = cagnt1::messageToJson(messages.back());
        requireEqual(written(messages.back()), json, "a message is written as documented");
        require(readJson(json).has_value(), "a request is JSON");
        const auto alone = cagnt1::messagesFromJson("{\"messages\":[" + json + "]}");
        require(alone.size() == 1, "one message arrives as one");
        checkEqual(arrived(messages.back()), alone.front());
    }

    const auto batch = cagnt1::messagesFromJson(cagnt1::messagesToJson(messages));

    require(batch.size() == messages.size(), "a batch arrives whole");
    for (std::size_t index = 0; index < batch.size(); ++index) {
        checkEqual(arrived(messages[index]), batch[index]);
    }
    return 0;
}
