#include "tests/endtoend/TranscriptGrammar.h"

#include <algorithm>
#include <map>
#include <set>

namespace kolvan::test {

namespace {

using Names = std::set<std::string>;

bool startsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

/// The sets of parameters that a type may carry besides identity, token and output; none: no such
/// type.
std::vector<Names> parametersOf(const std::string& type) {
    static const std::map<std::string, std::vector<Names>> table = {
        {"connect", {{"hostname", "serverResolvedIpAddress", "serverResolvedHostnames"}}},
        {"commands:get", {{}}},
        {"disconnect", {{}}},
        {"collector:operations:cancelled", {{}}},
        {"error", {{"errorMessage"}}},
        {"collector:stdout", {{"id", "size"}}},
        {"collector:stderr", {{"id", "size"}}},
        {"collector:feedback", {{"id", "size"}}},
        {"collector:finish", {{"id", "code"}, {"id", "errorMessage"}}},
    };
    const auto entry = table.find(type);
    return entry == table.end() ? std::vector<Names>{} : entry->second;
}

Names ownParameters(const AgentMessage& message) {
    Names names;
    for (const auto& [name, value] : message.parameters) {
        if (name != "agentUuid" && name != "accessToken") {
            names.insert(name);
        }
    }
    return names;
}

class Checker {
public:
    explicit Checker(const std::string& accessToken) : accessToken(accessToken) {}

    void check(const ReceivedMessage& received) {
        place = std::to_string(received.index) + " " + received.message.type;
        checkSender(received.message);
        checkParameters(received.message);
        checkOutput(received);
        checkOrder(received.message);
        checkOperation(received.message);
        ++count;
    }

    void checkEnd() {
        place = "the end";
        for (const auto& [id, finished] : operations) {
            expect(finished, "operation '" + id + "' has not ended");
        }
    }

    std::vector<std::string> errors;

private:
    void expect(bool holds, const std::string& problem) {
        if (!holds) {
            errors.push_back(place + ": " + problem);
        }
    }

    void checkSender(const AgentMessage& message) {
        const std::string sender = message.parameter("agentUuid");
        expect(hasForm(sender, "xxxxxxxx-xxxx-4xxx-vxxx-xxxxxxxxxxxx"),
               "no identity: '" + sender + "'");
        if (identity.empty()) {
            identity = sender;
        }
        expect(sender == identity, "another identity");
        expect(message.parameter("accessToken") == accessToken, "another token");
    }

    void checkParameters(const AgentMessage& message) {
        const std::vector<Names> allowed = parametersOf(message.type);
        bool matches = false;
        for (const Names& names : allowed) {
            matches = matches || names == ownParameters(message);
        }
        expect(matches, "wrong type or parameters");
        if (message.type == "connect") {
            expect(message.parameter("serverResolvedIpAddress").empty() &&
                       message.parameter("serverResolvedHostnames").empty() &&
                       !message.parameter("hostname").empty(),
                   "wrong names of hosts");
        }
    }

    void checkOutput(const ReceivedMessage& received) {
        const bool announced = received.message.parameters.contains("size");
        expect(announced == (received.outputSize != 0) &&
                   (!announced ||
                    received.message.parameter("size") == std::to_string(received.outputSize)),
               "wrong size");
    }

    void checkOrder(const AgentMessage& message) {
        const bool first = count == 0;
        expect(first == (message.type == "connect"), "not at the beginning or not once");
        if (disconnected) {
            ++afterDisconnect;
            expect(message.type == "commands:get" && afterDisconnect == 1, "after \"disconnect\"");
        }
        disconnected = disconnected || message.type == "disconnect";
    }

    void checkOperation(const AgentMessage& message) {
        if (!startsWith(message.type, "collector:") || !message.parameters.contains("id")) {
            return;
        }
        bool& finished = operations[message.parameter("id")];
        expect(!finished, "after the operation's end");
        finished = finished || message.type == "collector:finish";
    }

    const std::string accessToken;
    std::string place;
    std::string identity;
    std::size_t count = 0;
    bool disconnected = false;
    int afterDisconnect = 0;
    std::map<std::string, bool> operations;  // whether each has ended
};

}  // namespace

bool hasForm(const std::string& text, const std::string& form) {
    const auto fits = [](char character, char wanted) {
        switch (wanted) {
            case 'x':
                return std::string("0123456789abcdef").find(character) != std::string::npos;
            case 'v':
                return std::string("89ab").find(character) != std::string::npos;
            default:
                return character == wanted;
        }
    };
    return text.size() == form.size() && std::equal(text.begin(), text.end(), form.begin(), fits);
}

std::vector<std::string> grammarErrors(const Transcript& transcript,
                                       const std::string& accessToken) {
    Checker checker(accessToken);
    for (const ReceivedMessage& received : transcript) {
        checker.check(received);
    }
    checker.checkEnd();
    return checker.errors;
}

}  // namespace kolvan::test
