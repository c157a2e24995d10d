/// Asks a real server everything that its contract describes, and writes each answer as a line of
/// JSON: method, path, status, type and body.
#include "companions/server/api/JsonWriter.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <exception>
#include <iostream>
#include <string>

namespace {

using namespace kolvan::server;
using kolvan::test::ApiRequest;
using kolvan::test::ApiScene;
using kolvan::test::ReceivedResponse;

std::string listOfProcesses() {
    return R"([{"pid":1,"user":"root","command":"init","cpu":0.5,"threads":1,"profilable":false,)"
           R"("reason":"no right","help":"be root"},)"
           R"({"pid":4711,"user":"ada","command":"server --fast","cpu":97.5,"threads":8,)"
           R"("profilable":true,"reason":"","help":""}])";
}

std::string profile() {
    profiles::test::PprofFile file;
    file.thread(4711, 4711, "main", "server").at(0);
    file.sample("main;work", {3, 3'000'000}).sample("main;wait", {1, 1'000'000});
    file.thread(4711, 4712, "worker", "server").at(100).sample("run;work", {5, 5'000'000});
    return file.file();
}

class Answers {
public:
    explicit Answers(const std::filesystem::path& directory) : scene(directory) {}

    void write() {
        prepare();
        askAnybody();
        askAsPage();
        askAboutAgents();
        askAboutCollections();
        askAboutProfiles();
        askAboutSymbols();
        askAsAdministrator();
        askForMistakes();
    }

private:
    void prepare() {
        busy = scene.addAgent("busy");
        idle = scene.addAgent("idle");
        done = scene.addCollection(busy, "the first");
        scene.confirmAll(busy);
        scene.say(done, OutputChannel::Stdout, "hello\n");
        scene.upload(done, "data.0/profile.pb.gz", profile());
        scene.end(done, 0);
        running = scene.addCollection(busy, "the second");
        scene.confirmAll(busy);
        waiting = scene.addCollection(idle);
    }

    ReceivedResponse ask(const std::string& method, const std::string& target,
                         const std::string& body = "", Role role = Role::Administrator) {
        return record(
            ApiRequest{method, target, body, "application/json", {}}.with(scene.token(role)));
    }

    ReceivedResponse record(const ApiRequest& request) {
        ReceivedResponse response = scene.send(request);
        api::JsonWriter json;
        json.object([&] {
            json.member("method", request.method);
            json.member("path", request.target.substr(0, request.target.find('?')));
            json.member("status", response.status);
            json.member("type", response.fields["content-type"]);
            json.member("body", response.body);
        });
        std::cout << json.text() << '\n';
        return response;
    }

    void askAnybody() {
        record({"GET", "/healthz"});
        record({"GET", "/api/v1/openapi.json"});
        record({"GET", "/api/v1/agents"});
        const std::string code = scene.logins.makeFirstLoginCode().value();
        record({"POST", "/api/v1/session/first",
                R"({"code":")" + code + R"(","name":"boss","password":"correct horse"})"});
        record({"POST", "/api/v1/session", R"({"name":"boss","password":"correct horse"})"});
        record({"POST", "/api/v1/session", R"({"name":"boss","password":"wrong"})"});
    }

    void askAsPage() {
        const NewSession session = scene.logIn("ada", Role::Engineer);
        ApiRequest request{"GET", "/api/v1/session"};
        request.fields.emplace_back("Cookie", "kolvan_session=" + session.cookie);
        record(request);
        request.method = "DELETE";
        record(request);
        request.fields.emplace_back("X-Cross-Site-Token", session.signedIn.crossSiteToken);
        record(request);
        const NewSession other = scene.logIn("ben", Role::Viewer);
        ApiRequest change{"POST", "/api/v1/session/password",
                          R"({"presentPassword":"correct horse","password":"another password"})"};
        change.fields = {{"Cookie", "kolvan_session=" + other.cookie},
                         {"X-Cross-Site-Token", other.signedIn.crossSiteToken}};
        record(change);
    }

    void askAboutAgents() {
        const std::string one = "/api/v1/agents/" + busy.id.text;
        ask("GET", "/api/v1/agents?limit=1");
        ask("GET", one);
        ask("GET", one + "/processes");
        ask("POST", one + "/processes");
        const Operation asked =
            scene.store.operations().findLatest(busy.id, OperationKind::ProcessList).value();
        scene.confirmAll(busy);
        scene.outputs.append(asked.id, OutputChannel::Stdout, listOfProcesses());
        scene.store.operations().finish(busy.id, asked.id, 0, "", CollectionState::Done);
        ask("GET", one + "/processes");
        ask("GET", "/api/v1/agents/none");
    }

    void askAboutCollections() {
        const std::string all = "/api/v1/collections";
        const std::string ended = all + '/' + done.id.text;
        const std::string open = all + '/' + running.id.text;
        ask("GET", all);
        ask("GET", all + "?state=done&limit=1");
        ask("POST", all,
            R"({"agent":")" + idle.id.text +
                R"(","target":{"command":["/bin/true"]},"profile":"wait","durationSeconds":2.5})");
        ask("GET", ended);
        ask("PATCH", ended, R"({"name":"renamed","note":"a note"})");
        ask("POST", open + "/command", R"({"command":"status"})");
        ask("POST", open + "/stop");
        ask("POST", open + "/stop");
        ask("POST", open + "/cancel");
        ask("GET", ended + "/events");
        ask("GET", ended + "/output/stdout");
        ask("GET", ended + "/files");
        ask("GET", ended + "/files/data.0%2Fprofile.pb.gz");
        (void)scene.store.operations().take(idle.id, 16);  // and nothing is heard of them
        scene.clock.advance(std::chrono::minutes(5));
        ask("GET", all + '/' + waiting.id.text);
        ask("POST", all + '/' + waiting.id.text + "/send-again");
        ask("DELETE", all + '/' + waiting.id.text);
    }

    void askAboutProfiles() {
        const std::string one = "/api/v1/collections/" + done.id.text;
        for (const char* const view : {"/profile.pb.gz", "/profile.speedscope.json",
                                       "/profile.collapsed.txt", "/flamegraph.json", "/top.json"}) {
            ask("GET", one + view);
        }
        ask("GET", one + "/top.json?thread=4712&count=1");
        ask("GET", one + "/top.json?sampleType=apples");
        ask("GET", "/api/v1/compare?base=" + done.id.text + "&other=" + done.id.text);
        ask("DELETE", one);
    }

    void askAboutSymbols() {
        ask("GET", "/api/v1/symbols");
        ask("PUT", "/api/v1/symbols/00ff", "no ELF file");
        ask("DELETE", "/api/v1/symbols/00ff");
    }

    void askAsAdministrator() {
        ask("GET", "/api/v1/session");
        ask("GET", "/metrics");
        ask("GET", "/api/v1/audit?limit=3");
        ask("POST", "/api/v1/tokens", R"({"name":"nightly","kind":"api","role":"viewer"})");
        ask("POST", "/api/v1/tokens", R"({"name":"fleet","kind":"agent","shared":true})");
        ask("GET", "/api/v1/tokens");
        ask("DELETE", "/api/v1/tokens/" + scene.store.accounts().listTokens().back().id.text);
        ask("POST", "/api/v1/users",
            R"({"name":"bob","role":"viewer","password":"correct horse"})");
        const std::string bob =
            "/api/v1/users/" + scene.store.accounts().findUser(std::string("bob"))->id.text;
        ask("GET", "/api/v1/users");
        ask("PATCH", bob, R"({"role":"engineer"})");
        ask("DELETE", bob);
    }

    void askForMistakes() {
        ask("GET", "/api/v1/users", "", Role::Viewer);
        ask("GET", "/api/v1/agents?limit=0");
        ask("POST", "/api/v1/users", "{");
        ask("POST", "/api/v1/users", std::string(70'000, ' '));
        ask("POST", "/api/v1/tokens",
            R"({"name":"engineer","kind":"api","role":"viewer"})");  // there is one
    }

    ApiScene scene;
    Agent busy;
    Agent idle;
    Collection done;
    Collection running;
    Collection waiting;
};

}  // namespace

int main() {
    try {
        const kolvan::test::TemporaryDirectory directory;
        Answers(directory.path()).write();
        return std::cout.flush() ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
