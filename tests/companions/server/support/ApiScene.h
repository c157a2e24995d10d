#pragma once

#include "companions/server/accounts/Logins.h"
#include "companions/server/accounts/Passwords.h"
#include "companions/server/accounts/RefusalLog.h"
#include "companions/server/accounts/Tokens.h"
#include "companions/server/accounts/Users.h"
#include "companions/server/api/Api.h"
#include "companions/server/api/ProfileViews.h"
#include "companions/server/store/SqliteStore.h"
#include "companions/server/symbols/SymbolFiles.h"
#include "tests/companions/server/support/ServerScene.h"
#include "tests/companions/server/support/SetClock.h"

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::test {

/// A request to the API.
struct ApiRequest {
    std::string method = "GET";
    std::string target;
    std::string body = {};
    std::string contentType = "application/json";  ///< sent along with a body
    std::vector<std::pair<std::string, std::string>> fields = {};

    /// The request as it goes over a connection.
    std::string text() const;

    /// The same request of a program with this token.
    ApiRequest with(const std::string& token) const;
};

/// A server with the whole API, whose store and files are in a directory of their own. Passwords
/// cost next to nothing there.
class ApiScene {
public:
    static constexpr char kPassword[] = "correct horse";

    /// @param dataDirectory made when it is missing; one of an earlier scene is gone on with, with
    ///        new tokens
    /// @param publicUrl how browsers reach the server; empty: as it listens
    explicit ApiScene(const std::filesystem::path& dataDirectory, std::string publicUrl = "");
    ~ApiScene();

    /// Stops the server. To be called once at most.
    /// @return how many connections had to be broken off
    std::size_t stop();

    unsigned port() const { return server.port(); }

    /// What the API works with.
    const server::api::Surroundings& parts() const { return api.parts(); }

    /// A token of this role. Its name is that of the role, which is how the API shows who has made
    /// something with it.
    const std::string& token(server::Role role) const { return tokenTexts.at(role); }

    /// Sends a request over a connection of its own and reads the response.
    ReceivedResponse send(const ApiRequest& request) const;

    /// The same as a viewer.
    ReceivedResponse get(const std::string& target) const;

    /// The same as an engineer. @param body JSON; empty: without a body
    ReceivedResponse send(const std::string& method, const std::string& target,
                          const std::string& body = "") const;

    /// Adds a user and logs in.
    server::NewSession logIn(const std::string& user, server::Role role);

    /// Connects an agent with a token of its own, which has its name.
    server::Agent addAgent(const std::string& name, const std::string& uuid = "uuid-1");

    /// Makes a collection of process 4711, as an engineer would.
    server::Collection addCollection(const server::Agent& agent, const std::string& name = "");

    /// The agent takes all that waits for it, and speaks of it.
    void confirmAll(const server::Agent& agent);

    /// The agent says that the collection's collector has ended.
    void end(const server::Collection& collection, int exitCode);

    /// The agent says this over a channel of the collection.
    void say(const server::Collection& collection, server::OutputChannel channel,
             std::string_view bytes);

    /// The agent uploads a whole file of the collection.
    void upload(const server::Collection& collection, const std::string& name,
                std::string_view content);

    /// Lines of the audit, oldest first, as "ACTOR ACTION SUBJECT (DETAIL)".
    std::vector<std::string> audit();

    SetClock clock;
    server::SqliteStore store;
    const server::OutputFiles outputs;
    const server::UploadedFiles uploads;
    const server::Passwords passwords{{1, 8192}};
    server::RefusalLog refusals{store.audit(), clock};
    server::Tokens tokens{store, clock, refusals};
    server::Users users{store, passwords};
    server::Logins logins{store, clock, passwords, refusals};
    server::Collections collections{store, outputs, uploads};
    server::symbols::SymbolFiles symbols;
    ServerScene server;
    server::api::ProfileViews views;

private:
    server::api::Api api;
    std::map<server::Role, std::string> tokenTexts;
    bool serving = true;
};

}  // namespace kolvan::test
