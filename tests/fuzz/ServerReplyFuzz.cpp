// The input is a server's reply: what is read from it, and what an agent makes of it.
#include "agent/Agent.h"
#include "server/AgentConfiguration.h"
#include "server/MessageJson.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/fuzz/JsonOracle.h"
#include "tests/support/FakeOperations.h"
#include "tests/support/FakeServer.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>

namespace {

using cagnt1::Message;
using kolvan::test::FakeOperations;
using kolvan::test::FakeServer;
using kolvan::test::Messages;
using namespace kolvan::fuzz;
using Texts = std::vector<std::string>;

// Each launch is a thread.
constexpr std::size_t kMaxMessages = 32;

// Nothing where an element of the batch has no type.
using Reading = std::optional<Messages>;

Reading expectedReading(const std::string& text) {
    const std::optional<Json> json = readJson(text);
    const Json* elements = json ? json->member("messages") : nullptr;
    Messages messages;
    if (elements != nullptr && elements->kind == Json::Kind::Array) {
        for (const Json& element : elements->elements) {
            const Json* type = element.member("messageType");
            if (type == nullptr || type->kind != Json::Kind::Text) {
                return std::nullopt;
            }
            messages.push_back({type->asText(), {}});
            if (const Json* parameters = element.member("messageParameters")) {
                for (const auto& [name, value] : parameters->members) {
                    messages.back().parameters[upToNul(name)] = value.asText();
                }
            }
        }
    }
    return messages;
}

Reading reading(const std::string& text) {
    try {
        return cagnt1::messagesFromJson(text);
    } catch (const std::logic_error& error) {
        requireEqual("Message without a type", error.what(), "the only failure of a reply");
        return std::nullopt;
    }
}

bool equal(const Messages& left, const Messages& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const Message& one, const Message& other) {
                          return one.type == other.type && one.parameters == other.parameters;
                      });
}

void checkReading(const std::string& text, const Reading& actual) {
    if (actual) {
        require(equal(*actual, cagnt1::messagesFromJson(cagnt1::messagesToJson(*actual))),
                "messages that were read survive a round trip");
    }
    try {
        const Reading expected = expectedReading(text);
        require(expected.has_value() == actual.has_value(), "a batch without types is refused");
        require(!expected || equal(*expected, *actual), "a reply is read as documented");
    } catch (const Undecided&) {
        // Nothing to compare with.
    }
}

// What an agent that is polling does when these messages arrive, then a "stop" at its next poll.
struct Expectation {
    Texts calls{"onConnect"};  // in any order, since operations have threads of their own
    Texts types{"connect", "commands:get"};

    explicit Expectation(const Messages& messages) {
        for (const Message& message : messages) {
            handle(message);
        }
        if (!stopping) {
            types.insert(types.end(), {"commands:get", "disconnect"});
        }
        std::sort(calls.begin(), calls.end());
    }

private:
    void handle(const Message& message) {
        const std::string& type = message.type;
        if (type == "connected") {
            stopping = false;
            calls.emplace_back("onConnect");
        } else if (type == "disconnected") {
            calls.emplace_back("onDisconnect");
        } else if (type == "error") {
            const bool named = message.parameters.count("errorMessage") != 0;
            calls.push_back("onError[" +
                            (named ? message.parameters.at("errorMessage") : "Unspecified error.") +
                            "]");
        } else if (type == "collector:operations:cancel") {
            calls.emplace_back("cancelOperations");
            types.emplace_back("collector:operations:cancelled");
        } else if (type == "stop" && !stopping) {
            stopping = true;
            types.emplace_back("disconnect");
        } else if (!stopping) {
            launch(message);
        }
    }

    void launch(const Message& message) {
        if (message.type == "collector:execute") {
            std::string call = "execute";
            for (const std::string& argument : split(message.parameter("args"), ' ')) {
                call += "[" + argument + "]";
            }
            calls.push_back(call);
        } else if (message.type == "collector:collection:start") {
            calls.push_back("performCollection[" + message.parameter("options") + "][" +
                            message.parameter("traceUploadDirectory") + "]");
        } else if (message.type == "collector:collection:command") {
            calls.push_back("collectionCommand[" + message.parameter("command") + "]");
        }
    }

    bool stopping = false;
};

Texts requestsOfTheConnection(FakeServer& server, Texts& finished) {
    Texts types;
    for (const FakeServer::Request& request : server.requests()) {
        if (request.message.type == "collector:finish") {
            finished.push_back(request.message.parameter("id"));
        } else {
            types.push_back(request.message.type);
        }
    }
    return types;
}

void checkAgent(const std::string& text, const Reading& messages) {
    const auto server = std::make_shared<FakeServer>();
    const auto operations = std::make_shared<FakeOperations>();
    server->answerText("commands:get", text);
    server->answer("commands:get", {kolvan::test::stop()});
    {
        cagnt1::Agent agent({}, server, operations);
        if (messages) {
            agent.waitUntilStopped();
        } else {
            (void)server->waitForRequest("commands:get");
        }
    }

    Texts finished;
    const Texts types = requestsOfTheConnection(*server, finished);
    Texts calls = operations->callTexts();
    std::sort(calls.begin(), calls.end());
    if (!messages) {
        require(types == Texts({"connect", "commands:get", "disconnect"}),
                "a batch without types ends the connection");
        return;
    }
    const Expectation expected(*messages);
    require(types == expected.types, "the agent sends what is expected");
    require(calls == expected.calls, "the agent calls what is expected");
    const auto launches = std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
        return call.rfind("execute", 0) == 0 || call.rfind("performCollection", 0) == 0 ||
               call.rfind("collectionCommand", 0) == 0;
    });
    require(static_cast<std::size_t>(launches) == finished.size(), "every operation finishes once");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    silenceStreams();
    const Reading messages = reading(text);
    checkReading(text, messages);
    if (!messages || messages->size() <= kMaxMessages) {
        checkAgent(text, messages);
    }
    return 0;
}
