#pragma once

#include "tests/companions/server/support/Client.h"

#include <string>
#include <vector>

namespace kolvan::test {

/// What an agent says, sentence by sentence, as a test wants it. It survives the server: each
/// sentence is a request over a connection of its own.
///
/// Threads: one at a time.
class FakeAgent {
public:
    FakeAgent(std::string agentUuid, std::string agentToken)
        : uuid(std::move(agentUuid)), token(std::move(agentToken)) {}

    /// To which server it speaks from now on.
    void use(unsigned serverPort) { port = serverPort; }

    /// A message as it goes to the server. @param moreParameters each with a comma before it
    std::string message(const std::string& type, const std::string& moreParameters = "") const;

    /// Each sends a message and returns the answer, of which status 0 says that none came.
    ReceivedResponse connect() const { return say("connect", kHost); }
    ReceivedResponse poll() const { return say("commands:get", ""); }
    ReceivedResponse disconnect() const { return say("disconnect", ""); }
    ReceivedResponse writeOutput(const std::string& operation, const std::string& text) const;
    ReceivedResponse finish(const std::string& operation, int code) const;

    /// Uploads a file in one request.
    ReceivedResponse upload(const std::string& directory, const std::string& name,
                            const std::string& content) const;

    /// The head of a request and the beginning of its body, and what has to follow.
    struct RequestText {
        std::string beginning;
        std::string end;
    };

    /// A message with output, which is cut in its output's middle.
    RequestText outputText(const std::string& operation, const std::string& text) const;

    /// An upload, which is cut in its file's middle.
    static RequestText uploadText(const std::string& directory, const std::string& name,
                                  const std::string& content);

    static constexpr const char* kHost = R"(,"hostname":"host")";  ///< as a parameter

private:
    ReceivedResponse say(const std::string& type, const std::string& moreParameters) const;

    const std::string uuid;
    const std::string token;
    unsigned port = 0;
};

/// A command as it stands in the answer to a poll.
struct ReceivedCommand {
    std::string type;
    std::string id;
    std::string uploadDirectory;  ///< of the start of a collection
};

/// The commands of an answer.
std::vector<ReceivedCommand> commandsOf(const ReceivedResponse& answer);

}  // namespace kolvan::test
