#include "companions/server/serve/Service.h"

#include "companions/server/accounts/Passwords.h"
#include "companions/server/accounts/RefusalLog.h"
#include "companions/server/accounts/Tokens.h"
#include "companions/server/accounts/Users.h"
#include "companions/server/agents/AgentEndpoint.h"
#include "companions/server/agents/AgentService.h"
#include "companions/server/agents/HeldPolls.h"
#include "companions/server/agents/PresenceWatch.h"
#include "companions/server/api/Api.h"
#include "companions/server/api/ProfileViews.h"
#include "companions/server/api/Routes.h"
#include "companions/server/collections/Collections.h"
#include "companions/server/collections/OutputFiles.h"
#include "companions/server/collections/UploadedFiles.h"
#include "companions/server/http/Router.h"
#include "companions/server/http/Server.h"
#include "companions/server/serve/Chores.h"
#include "companions/server/serve/Housekeeping.h"
#include "companions/server/store/SqliteStore.h"
#include "companions/server/symbols/SymbolFiles.h"

#include <boost/asio/thread_pool.hpp>

#include <string>
#include <utility>

namespace kolvan::server {

namespace {

// Each blocks on the disk most of its time. A login keeps one busy for most of a second, others
// wait for that; so there are some more than processors.
constexpr std::size_t kThreads = 8;

constexpr std::chrono::seconds kLookForChanges{1};
constexpr std::chrono::seconds kRecordSeen{5};
constexpr std::chrono::seconds kRecordEnds{5};
constexpr std::chrono::seconds kLookForLost{10};
constexpr std::chrono::minutes kTidyUp{10};

}  // namespace

struct Service::Parts {
    Parts(const boost::asio::any_io_executor& executor, const DataDirectory& data,
          const Clock& clock, ServiceSettings settings)
        : log(std::move(settings.log)),
          traffic(std::make_shared<http::Traffic>()),
          store(data.database().string(), clock),
          publicUrl(settings.publicUrl.empty()
                        ? store.settings().find(SettingStore::kPublicUrl).value_or("")
                        : std::move(settings.publicUrl)),
          outputs(data.output()),
          uploads(data.collections()),
          symbols(data.symbols()),
          views(symbols, data.views()),
          collections(store, outputs, uploads),
          refusals(store.audit(), clock),
          tokens(store, clock, refusals),
          users(store, passwords),
          logins(store, clock, passwords, refusals),
          agentService(store, tokens, outputs),
          presence(store.agents(), clock),
          polls(executor),
          agents({store, agentService, collections, uploads, polls, threads, data.packages(), log}),
          api({store, clock, tokens, logins, collections, outputs, uploads, threads, users, symbols,
               views, publicUrl, traffic, [this] { return polls.table().size(); }}),
          chores(executor, threads, log),
          server(executor, threads, router, {{}, std::move(settings.identity), log, traffic}) {
        agents.addRoutes(router);
        api::addRoutes(api, router);
    }

    const std::function<void(std::string_view)> log;
    const std::shared_ptr<http::Traffic> traffic;

    SqliteStore store;
    const std::string publicUrl;
    OutputFiles outputs;
    UploadedFiles uploads;
    symbols::SymbolFiles symbols;
    api::ProfileViews views;
    Collections collections;

    const Passwords passwords;
    RefusalLog refusals;
    Tokens tokens;
    Users users;
    Logins logins;

    boost::asio::thread_pool threads{kThreads};
    agents::AgentService agentService;
    agents::PresenceWatch presence;
    agents::HeldPolls polls;
    agents::AgentEndpoint agents;
    api::Api api;
    http::Router router;
    Chores chores;
    http::Server server;
};

Service::Service(const boost::asio::any_io_executor& executor, const DataDirectory& data,
                 const Clock& clock, ServiceSettings settings)
    : parts(std::make_unique<Parts>(executor, data, clock, std::move(settings))) {}

Service::~Service() {
    // What the last answers have left to be recorded is recorded.
    parts->threads.join();
}

void Service::listen(basekit2::UniqueFd socket) {
    parts->server.listen(std::move(socket));
}

void Service::startChores() {
    Parts& all = *parts;
    all.chores.start("Looking for changes of other processes", kLookForChanges,
                     [&all] { all.store.lookForOutsideChanges(); });
    all.chores.start("Recording which agents were heard", kRecordSeen,
                     [&all] { all.agentService.recordSeen(); });
    all.chores.start("Recording which operations have ended", kRecordEnds,
                     [&all] { all.agentService.recordEnds(); });
    all.chores.start("Looking for lost agents", kLookForLost, [&all] { all.presence.look(); });
    all.chores.start("Removing what nobody needs any more", kTidyUp,
                     [&all] { tidyUp(all.store, all.logins, all.outputs); });
}

http::Awaitable<void> Service::stopChores() {
    return parts->chores.stop();
}

http::Awaitable<std::size_t> Service::stop(std::chrono::steady_clock::duration patience) {
    co_await parts->chores.stop();
    parts->polls.stop();
    const std::size_t broken = co_await parts->server.stop(patience);
    co_return broken;
}

void Service::hurry(std::chrono::steady_clock::duration patience) {
    parts->server.hurry(patience);
}

Logins& Service::logins() {
    return parts->logins;
}

const std::string& Service::publicUrl() const {
    return parts->publicUrl;
}

}  // namespace kolvan::server
