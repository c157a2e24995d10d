#include "tests/companions/server/support/ApiScene.h"

#include "companions/server/api/Routes.h"
#include "companions/server/collections/CollectorOptions.h"
#include "companions/server/store/Names.h"

#include <utility>
#include <variant>

namespace kolvan::test {

namespace fs = std::filesystem;

using namespace kolvan::server;

namespace {

const Actor kTester{"tester", "local"};

fs::path madeDirectory(const fs::path& directory) {
    fs::create_directories(directory);
    return directory;
}

}  // namespace

std::string ApiRequest::text() const {
    std::string text = method + ' ' + target + " HTTP/1.1\r\nHost: test\r\n";
    for (const auto& [name, value] : fields) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    if (!body.empty()) {
        text.append("Content-Type: ").append(contentType).append("\r\n");
        text.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n");
    }
    return text.append("\r\n").append(body);
}

ApiRequest ApiRequest::with(const std::string& token) const {
    ApiRequest request = *this;
    request.fields.emplace_back("Authorization", "Bearer " + token);
    return request;
}

ApiScene::ApiScene(const fs::path& dataDirectory, std::string publicUrl)
    : store(madeDirectory(dataDirectory) / "kolvan.sqlite", clock),
      outputs(dataDirectory / "output"),
      uploads(dataDirectory / "uploads"),
      symbols(dataDirectory / "symbols"),
      views(symbols, madeDirectory(dataDirectory / "views")),
      api({store, clock, tokens, logins, collections, outputs, uploads, server.threads(), users,
           symbols, views, std::move(publicUrl), server.settings.traffic}) {
    for (const ApiToken& earlier : store.accounts().listTokens()) {
        (void)store.accounts().revokeToken(earlier.id);  // one that was revoked already stays so
    }
    for (const Role role : {Role::Viewer, Role::Engineer, Role::Administrator}) {
        tokenTexts[role] = tokens.addApiToken(std::string(nameOf(role)), role, kTester).text;
    }
    api::addRoutes(api, server.router);
    server.start();
}

ApiScene::~ApiScene() {
    if (serving) {
        (void)stop();  // whoever wants to know has called it
    }
}

std::size_t ApiScene::stop() {
    serving = false;
    return server.stop();
}

ReceivedResponse ApiScene::send(const ApiRequest& request) const {
    Client client(port());
    (void)client.send(request.text());  // the response tells
    return client.readResponse(request.method == "HEAD");
}

ReceivedResponse ApiScene::get(const std::string& target) const {
    return send(ApiRequest{"GET", target, {}, {}, {}}.with(token(Role::Viewer)));
}

ReceivedResponse ApiScene::send(const std::string& method, const std::string& target,
                                const std::string& body) const {
    ApiRequest request;
    request.method = method;
    request.target = target;
    request.body = body;
    return send(request.with(token(Role::Engineer)));
}

NewSession ApiScene::logIn(const std::string& user, Role role) {
    (void)users.add(user, role, kPassword, kTester);
    return std::get<NewSession>(logins.logIn(user, kPassword, "", "127.0.0.1"));
}

Agent ApiScene::addAgent(const std::string& name, const std::string& uuid) {
    const AgentToken token = store.agents().addToken(name, false, sha256("token of " + name));
    return store.agents().connect({token.id, name + ".example", uuid, "192.0.2.10"});
}

Collection ApiScene::addCollection(const Agent& agent, const std::string& name) {
    NewCollection collection;
    collection.agent = agent.id;
    collection.name = name;
    collection.madeBy = "engineer";
    collection.request.pid = 4711;
    return collections.start(collection);
}

void ApiScene::confirmAll(const Agent& agent) {
    for (const Operation& operation : store.operations().take(agent.id, 16)) {
        (void)store.operations().confirm(agent.id, operation.id);  // taken just now, so it is there
    }
}

void ApiScene::end(const Collection& collection, int exitCode) {
    (void)store.operations().finish(collection.agent, collection.start, exitCode, "",
                                    outcomeOf(exitCode));
}

void ApiScene::say(const Collection& collection, OutputChannel channel, std::string_view bytes) {
    store.operations().setOutputSize(collection.start, channel,
                                     outputs.append(collection.start, channel, bytes));
}

void ApiScene::upload(const Collection& collection, const std::string& name,
                      std::string_view content) {
    (void)store.collections().beginFile(collection.id, name);  // the collection is there
    IncomingFile file = uploads.begin(collection.id, name);
    file.write(content);
    (void)store.collections().completeFile(collection.id, name, file.keep());
}

std::vector<std::string> ApiScene::audit() {
    std::vector<std::string> lines;
    for (const AuditLine& line : store.audit().list({}, {1000, ""}).items) {
        lines.insert(lines.begin(), line.actor + ' ' + line.action + ' ' + line.subject + " (" +
                                        line.detail + ')');
    }
    return lines;
}

}  // namespace kolvan::test
