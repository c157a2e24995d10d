#include "companions/client/Commands.h"

#include "companions/client/Api.h"
#include "companions/client/Failure.h"
#include "companions/client/OutputFile.h"
#include "companions/client/Printable.h"
#include "companions/client/ProfileCommand.h"
#include "companions/client/Settings.h"
#include "companions/client/TokenPrompt.h"
#include "companions/client/Views.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

namespace kolvan::client {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostAgents = 100'000;
constexpr std::size_t kMostTokens = 100'000;

/// Prints JSON where it is wanted, and the text otherwise.
template <typename View>
void print(const Options& options, const JsonValue& value, View view) {
    std::cout << (options.json ? jsonText(value) : view(value));
}

Query filterOf(const Options& options) {
    return {{"thread", options.thread},
            {"from", options.from},
            {"to", options.to},
            {"sampleType", options.sampleType}};
}

std::string pathOf(const std::string& collection) {
    return "collections/" + percentEncoded(collection);
}

void logIn(const Options& options) {
    const std::string address = checkedAddress(options.address);
    const std::string authorities = authorityFileFor(options.authorityFile);
    const std::string token = askSecretly("Token for " + printable(address) + ": ");
    const Settings settings{address, token, authorities};
    HttpClient client(settings.server, settings.token, settings.authorityFile);
    const Json session = Api(client).get("session");
    keepSettings(settings);
    print(options, session, [](const JsonValue& shown) {
        return "You are " + printable(textOf(shown, "name")) + ", " +
               printable(textOf(shown, "role")) + ". Kept in " + settingsFile().string() + ".\n";
    });
}

Json askForProcesses(Api& api, const std::string& agentId) {
    constexpr auto kPatience = 60s;
    constexpr auto kBetween = 300ms;
    const std::string path = "agents/" + percentEncoded(agentId) + "/processes";
    (void)api.post(path);  // its answer is that of the first look below
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        Json list = api.get(path);
        if (textOf(list, "state") != "waiting") {
            return list;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw Failure("The agent has not answered within a minute.");
        }
        std::this_thread::sleep_for(kBetween);
    }
}

void showProcesses(const Options& options, Api& api) {
    const Json list = askForProcesses(api, api.agentId(options.agent));
    if (textOf(list, "state") == "failed") {
        throw Failure("The agent could not list its processes: " + textOf(list, "error"));
    }
    print(options, list, processesView);
}

void listCollections(const Options& options, Api& api) {
    const std::string agent = options.agent.empty() ? "" : api.agentId(options.agent);
    print(options,
          api.list("collections", {{"agent", agent}, {"state", options.state}}, options.count),
          collectionsView);
}

void showTop(const Options& options, Api& api) {
    Query query = filterOf(options);
    query.emplace_back("count", std::to_string(options.count));
    print(options, api.get(pathOf(options.id) + "/top.json", query),
          [&](const JsonValue& top) { return topView(top, options.count); });
}

void compare(const Options& options, Api& api) {
    Query query = filterOf(options);
    query.emplace_back("base", options.id);
    query.emplace_back("other", options.other);
    print(options, api.get("compare", query),
          [&](const JsonValue& comparison) { return comparisonView(comparison, options.count); });
}

void addAgentToken(const Options& options, Api& api) {
    JsonObject wanted;
    wanted.set("kind", "agent");
    wanted.set("name", options.name);
    wanted.set("shared", options.shared);
    const Json made = api.post("tokens", &wanted.value());
    print(options, made,
          [](const JsonValue& token) { return printable(textOf(token, "token")) + "\n"; });
    std::cerr << "This is the \"accessToken\" for "
              << (options.shared ? "agents that share " : "the agent ") << printable(options.name)
              << ". It is shown this once.\n";
}

Json agentTokens(Api& api) {
    const Json all = api.list("tokens", {}, kMostTokens);
    Json ofAgents;
    ofAgents.SetArray();
    for (const JsonValue& token : all.GetArray()) {
        if (textOf(token, "kind") == "agent") {
            ofAgents.PushBack(JsonValue(token, ofAgents.GetAllocator()), ofAgents.GetAllocator());
        }
    }
    return ofAgents;
}

template <typename Wanted>
const JsonValue* findIn(const Json& tokens, Wanted wanted) {
    const auto all = tokens.GetArray();
    const auto found = std::find_if(all.Begin(), all.End(), wanted);
    return found == all.End() ? nullptr : found;
}

void revokeAgentToken(const Options& options, Api& api) {
    const Json before = agentTokens(api);
    // Of several with this name, one at most is in use.
    const JsonValue* const token = findIn(before, [&options](const JsonValue& one) {
        return textOf(one, "name") == options.name && textOf(one, "revoked").empty();
    });
    if (token == nullptr) {
        throw Failure("There is no token '" + options.name +
                      "' in use; \"kolvan agent-token list\" lists all of them.");
    }
    const std::string id = textOf(*token, "id");
    api.remove("tokens/" + percentEncoded(id));
    const Json after = agentTokens(api);
    const JsonValue* const revoked =
        findIn(after, [&id](const JsonValue& one) { return textOf(one, "id") == id; });
    print(options, revoked != nullptr ? *revoked : *token, [&options](const JsonValue&) {
        return "The token " + printable(options.name) + " opens nothing any more.\n";
    });
}

void get(const Options& options, Api& api) {
    const std::string name = options.format == "speedscope"   ? "profile.speedscope.json"
                             : options.format == "collapsed"  ? "profile.collapsed.txt"
                             : options.format == "flamegraph" ? "flamegraph.json"
                                                              : "profile.pb.gz";
    OutputFile file(options.file);
    api.download(pathOf(options.id) + "/" + name,
                 options.format == "pprof" ? Query() : filterOf(options),
                 [&file](std::string_view piece) { file.write(piece); });
    file.close();
}

}  // namespace

int carryOut(const Options& options) {
    if (options.command == Options::Command::Help) {
        std::cout << options.text;
        return 0;
    }
    if (options.command == Options::Command::Login) {
        logIn(options);
        return 0;
    }
    const Settings settings =
        findSettings({options.server, options.tokenFile, options.authorityFile});
    HttpClient client(settings.server, settings.token, settings.authorityFile);
    Api api(client);
    switch (options.command) {
        case Options::Command::Help:
        case Options::Command::Login:
            break;  // done above
        case Options::Command::Agents:
            print(options, api.list("agents", {}, kMostAgents), agentsView);
            break;
        case Options::Command::Processes:
            showProcesses(options, api);
            break;
        case Options::Command::Profile: {
            HttpClient forCancels(settings.server, settings.token, settings.authorityFile);
            return profile(options, api, forCancels);
        }
        case Options::Command::Collections:
            listCollections(options, api);
            break;
        case Options::Command::Show:
            print(options, api.get(pathOf(options.id)), collectionView);
            break;
        case Options::Command::Top:
            showTop(options, api);
            break;
        case Options::Command::Compare:
            compare(options, api);
            break;
        case Options::Command::Get:
            get(options, api);
            break;
        case Options::Command::Cancel:
            print(options, api.post(pathOf(options.id) + "/cancel"), collectionView);
            break;
        case Options::Command::AddAgentToken:
            addAgentToken(options, api);
            break;
        case Options::Command::ListAgentTokens:
            print(options, agentTokens(api), agentTokensView);
            break;
        case Options::Command::RevokeAgentToken:
            revokeAgentToken(options, api);
            break;
    }
    return 0;
}

}  // namespace kolvan::client
