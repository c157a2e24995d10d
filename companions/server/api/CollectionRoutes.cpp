#include "companions/server/api/CollectionRoutes.h"

#include "companions/server/api/Body.h"
#include "companions/server/api/CollectionView.h"
#include "companions/server/api/FileResponse.h"
#include "companions/server/api/Query.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;

constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestId = 64;
constexpr std::size_t kLongestNote = 10'000;
constexpr std::size_t kMostArguments = 1000;
constexpr std::int64_t kHighestPid = 4'194'304;  // PID_MAX_LIMIT of 64-bit kernels, proc(5)
constexpr std::int64_t kHighestFrequency = 10'000;
constexpr double kShortestSeconds = 0.001;
constexpr double kLongestSeconds = 1'000'000;

constexpr std::array<std::string_view, 3> kProfiles = {"cpu", "wait", "none"};
constexpr std::array<std::string_view, 3> kCommands = {"status", "stop", "cancel"};

template <std::size_t Count>
std::string oneOf(const std::array<std::string_view, Count>& words, std::string_view name,
                  std::string word) {
    if (std::find(words.begin(), words.end(), word) == words.end()) {
        Body::refuse(name, "may not be \"" + word + '"');
    }
    return word;
}

CollectionRequest requestOf(const Body& body) {
    CollectionRequest request;
    const std::optional<Body> target = body.object("target");
    if (!target) {
        Body::refuse("target", "is missing");
    }
    target->allow({"pid", "command"});
    request.pid = target->integer("pid", 1, kHighestPid);
    request.command = target->texts("command", kMostArguments).value_or(std::vector<std::string>());
    request.profile =
        oneOf(kProfiles, "profile", body.text("profile", kLongestName).value_or(request.profile));
    request.frequency = static_cast<int>(
        body.integer("frequency", 1, kHighestFrequency).value_or(request.frequency));
    if (const auto seconds = body.number("durationSeconds", kShortestSeconds, kLongestSeconds)) {
        request.duration =
            std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(*seconds * 1000)));
    }
    request.children = body.truth("children").value_or(request.children);
    return request;
}

NewCollection newCollectionOf(const Body& body, const Caller& caller) {
    body.allow(
        {"agent", "target", "profile", "frequency", "durationSeconds", "children", "name", "note"});
    NewCollection collection;
    collection.agent = AgentId(body.needText("agent", kLongestId));
    collection.request = requestOf(body);
    collection.name = body.text("name", kLongestName).value_or("");
    collection.note = body.text("note", kLongestNote).value_or("");
    collection.madeBy = caller.actor.name;
    return collection;
}

std::string describe(const CollectionRequest& request) {
    if (request.pid) {
        return "process " + std::to_string(*request.pid);
    }
    std::string text = "command";
    for (const std::string& argument : request.command) {
        text += ' ' + argument;
    }
    return text;
}

void require(Asked asked, const char* tooLate) {
    if (asked == Asked::NotFound) {
        throw HttpError(404, "There is no collection with this id.");
    }
    if (asked == Asked::TooLate) {
        throw HttpError(409, tooLate);
    }
}

/// A route that asks something of a collection, and shows it as it is then.
void addRequest(Api& api, http::Router& router, const std::string& word, const char* tooLate,
                Asked (Collections::*ask)(const CollectionId&)) {
    const Surroundings& parts = api.parts();
    api.add(router, "POST", "/api/v1/collections/{collection}/" + word, Permission::Collect,
            [&parts, word, tooLate, ask](http::Request& request,
                                         const Caller& caller) -> Awaitable<Response> {
                const std::string& id = request.place("collection");
                const auto call = [&] {
                    require((parts.collections.*ask)(CollectionId(id)), tooLate);
                    record(parts, caller, "collection." + word, id, "");
                    return shownCollection(parts, id);
                };
                co_return http::jsonResponse(
                    recordJson(co_await http::onPool(parts.threads, call), writeCollection), 202);
            });
}

CollectionFilter filterOf(const Query& query) {
    CollectionFilter filter;
    if (const auto agent = query.text("agent")) {
        filter.agent = AgentId(*agent);
    }
    filter.states = query.words<CollectionState>("state");
    filter.text = query.text("text").value_or("");
    filter.madeBy = query.text("madeBy").value_or("");
    filter.madeFrom = query.time("madeFrom");
    filter.madeUntil = query.time("madeUntil");
    return filter;
}

Page<ShownCollection> shownPage(const Surroundings& parts, Page<Collection> page) {
    Page<ShownCollection> views;
    for (Collection& collection : page.items) {
        views.items.push_back(shown(parts, std::move(collection)));
    }
    views.next = std::move(page.next);
    return views;
}

std::string filesJson(const std::vector<CollectionFile>& files) {
    JsonWriter json;
    json.object([&] {
        json.name("items");
        json.array([&] {
            for (const CollectionFile& file : files) {
                writeCollectionFile(json, file);
            }
        });
    });
    return json.text();
}

Awaitable<Response> list(const Surroundings& parts, http::Request& request) {
    const Query query(
        request, {"agent", "state", "text", "madeBy", "madeFrom", "madeUntil", "cursor", "limit"});
    const CollectionFilter filter = filterOf(query);
    const PageRequest page = query.page();
    const auto find = [&] {
        return shownPage(parts, parts.store.collections().list(filter, page));
    };
    co_return http::jsonResponse(
        pageJson(co_await http::onPool(parts.threads, find), writeCollection));
}

Awaitable<Response> make(const Surroundings& parts, http::Request& request, const Caller& caller) {
    const Body body = co_await Body::read(request);
    const NewCollection wanted = newCollectionOf(body, caller);
    const auto start = [&] {
        try {
            Collection made = parts.collections.start(wanted);
            record(parts, caller, "collection.make", made.id.text, describe(wanted.request));
            return shown(parts, std::move(made));
        } catch (const std::invalid_argument& error) {
            throw HttpError(400, std::string("This cannot be profiled: ") + error.what() + '.');
        }
    };
    const ShownCollection made = co_await http::onPool(parts.threads, start);
    Response response = http::jsonResponse(recordJson(made, writeCollection), 201);
    response.fields.emplace_back("Location", "/api/v1/collections/" + made.collection.id.text);
    co_return response;
}

Awaitable<Response> change(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    const Body body = co_await Body::read(request);
    body.allow({"name", "note"});
    body.refuseNull({"name", "note"});
    const auto name = body.text("name", kLongestName);
    const auto note = body.text("note", kLongestNote);
    if (!name && !note) {
        throw HttpError(400, "\"name\" or \"note\" has to be given.");
    }
    const std::string& id = request.place("collection");
    const auto rename = [&] {
        if (parts.store.collections().rename(CollectionId(id), name, note)) {
            record(parts, caller, "collection.change", id, name.value_or(""));
        }
        return shownCollection(parts, id);
    };
    co_return http::jsonResponse(
        recordJson(co_await http::onPool(parts.threads, rename), writeCollection));
}

Awaitable<Response> command(const Surroundings& parts, http::Request& request,
                            const Caller& caller) {
    const Body body = co_await Body::read(request);
    body.allow({"command"});
    const std::string word = oneOf(kCommands, "command", body.needText("command", kLongestName));
    const std::string& id = request.place("collection");
    const auto pass = [&] {
        require(parts.collections.command(CollectionId(id), word), "The collection does not run.");
        record(parts, caller, "collection.command", id, word);
        return shownCollection(parts, id);
    };
    co_return http::jsonResponse(
        recordJson(co_await http::onPool(parts.threads, pass), writeCollection), 202);
}

Awaitable<Response> remove(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    const std::string& id = request.place("collection");
    const auto forget = [&] {
        require(parts.collections.remove(CollectionId(id)),
                "A collection that has not ended cannot be removed; cancel it first.");
        record(parts, caller, "collection.remove", id, "");
    };
    co_await http::onPool(parts.threads, forget);
    co_return http::noContentResponse();
}

Awaitable<Response> showOutput(const Surroundings& parts, http::Request& request) {
    const std::optional<OutputChannel> channel = valueOf<OutputChannel>(request.place("channel"));
    if (!channel) {
        throw HttpError(404, "The channels are stdout, stderr and feedback.");
    }
    const auto open = [&] {
        const ShownCollection found = shownCollection(parts, request.place("collection"));
        return openFile(parts.outputs.path(found.collection.start, *channel), Missing::IsEmpty);
    };
    co_return fileResponse(co_await http::onPool(parts.threads, open), "application/octet-stream");
}

Awaitable<Response> showFile(const Surroundings& parts, http::Request& request) {
    const auto open = [&] {
        const CollectionId id(request.place("collection"));
        const std::vector<CollectionFile> files = parts.store.collections().listFiles(id);
        const auto found = std::find_if(files.begin(), files.end(), [&](const auto& file) {
            return file.complete && file.name == request.place("file");
        });
        if (found == files.end()) {
            throw HttpError(404, "The collection has no whole file of this name.");
        }
        return openFile(parts.uploads.path(id, found->name), Missing::IsAnError);
    };
    co_return fileResponse(co_await http::onPool(parts.threads, open), "application/octet-stream");
}

}  // namespace

void addCollectionRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const std::string one = "/api/v1/collections/{collection}";
    const auto look = [&](const std::string& path, auto handler) {
        api.add(router, "GET", path, Permission::Look,
                [&parts, handler](http::Request& request, const Caller&) {
                    return handler(parts, request);
                });
    };
    const auto act = [&](const std::string& method, const std::string& path, auto handler) {
        api.add(router, method, path, Permission::Collect,
                [&parts, handler](http::Request& request, const Caller& caller) {
                    return handler(parts, request, caller);
                });
    };

    look("/api/v1/collections", list);
    act("POST", "/api/v1/collections", make);
    look(one, [](const Surroundings& all, http::Request& request) -> Awaitable<Response> {
        const auto find = [&] { return shownCollection(all, request.place("collection")); };
        co_return http::jsonResponse(
            recordJson(co_await http::onPool(all.threads, find), writeCollection));
    });
    act("PATCH", one, change);
    act("DELETE", one, remove);
    act("POST", one + "/command", command);
    addRequest(api, router, "stop", "The collection does not run, or stops already.",
               &Collections::stop);
    addRequest(api, router, "cancel", "The collection has ended.", &Collections::cancel);
    addRequest(api, router, "send-again",
               "Only what was sent, and of which nothing was heard, can be sent again.",
               &Collections::sendAgain);
    look(one + "/output/{channel}", showOutput);
    look(one + "/files",
         [](const Surroundings& all, http::Request& request) -> Awaitable<Response> {
             const auto find = [&] {
                 const ShownCollection found = shownCollection(all, request.place("collection"));
                 return all.store.collections().listFiles(found.collection.id);
             };
             co_return http::jsonResponse(filesJson(co_await http::onPool(all.threads, find)));
         });
    look(one + "/files/{file}", showFile);
}

}  // namespace kolvan::server::api
