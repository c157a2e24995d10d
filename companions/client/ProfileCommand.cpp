#include "companions/client/ProfileCommand.h"

#include "companions/client/EventReader.h"
#include "companions/client/Failure.h"
#include "companions/client/Interrupts.h"
#include "companions/client/OutputFile.h"
#include "companions/client/Printable.h"
#include "companions/client/Views.h"
#include "companions/demangle/ShortName.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <unistd.h>

namespace kolvan::client {

namespace {

using namespace std::chrono_literals;

constexpr int kMostFailures = 5;  // of connections in a row
constexpr auto kBetweenAttempts = 1s;

constexpr long kNotIdentified = 401;
constexpr long kForbidden = 403;
constexpr long kNotFound = 404;

bool isFinal(const std::string& state) {
    return state == "done" || state == "failed" || state == "cancelled";
}

/// The user leaves a collection that is being cancelled.
struct Left {};

/// The collection has come to an end, and with it what its events have to tell.
struct Ended {};

/// Shows on standard error how far a collection is: on a terminal on one line, otherwise a line for
/// each thing to say.
class Progress {
public:
    void say(const std::string& text) {
        const std::string line = printable(text);
        if (!terminal) {
            std::cerr << line << "\n";
            return;
        }
        const std::size_t columns = width(line);
        const std::size_t rest = shown > columns ? shown - columns : 0;
        std::cerr << "\r" << line << std::string(rest, ' ') << std::flush;
        shown = columns;
    }

    /// Goes to a line of its own.
    void end() {
        if (std::exchange(shown, 0) > 0) {
            std::cerr << "\n";
        }
    }

private:
    const bool terminal = ::isatty(STDERR_FILENO) != 0;
    std::size_t shown = 0;  // characters on the line
};

/// Follows a collection until it has come to an end.
class Follower {
public:
    Follower(Api& serverApi, HttpClient& forCancels, Interrupts& userInterrupts, Json made)
        : api(serverApi),
          cancelApi(forCancels),
          interrupts(userInterrupts),
          collection(std::move(made)) {
        path = "collections/" + percentEncoded(textOf(collection, "id"));
    }

    /// @return the collection in its final state
    /// @throws Left, Failure
    Json follow() {
        showState();
        int failures = 0;
        while (!hasEnded()) {
            heard = false;
            try {
                readEvents();
                take(api.get(path));  // the stream has ended early
            } catch (const Ended&) {
                break;
            } catch (const Refusal& refusal) {
                giveUpWhereItStaysSo(refusal);
                tolerate(refusal, failures);
            } catch (const Failure& failure) {
                tolerate(failure, failures);
            }
            if (!hasEnded() && interrupts.wait(kBetweenAttempts)) {
                interrupted();
            }
        }
        progress.end();
        return std::move(collection);
    }

private:
    bool hasEnded() const { return isFinal(textOf(collection, "state")); }

    /// Another attempt to hear of the collection would be refused as well.
    /// @throws Failure
    void giveUpWhereItStaysSo(const Refusal& refusal) {
        const std::string id = textOf(collection, "id");
        const bool stays = refusal.status == kNotIdentified || refusal.status == kForbidden ||
                           refusal.status == kNotFound;
        if (stays) {
            progress.end();
        }
        if (refusal.status == kNotIdentified || refusal.status == kForbidden) {
            throw Failure("The server does not take the token any more. Collection " + id +
                          " goes on; with another token, \"kolvan show " + id +
                          "\" tells what became of it.");
        }
        if (refusal.status == kNotFound) {
            throw Failure("Collection " + id + " was removed.");
        }
    }

    /// @throws what is being handled, when that has been too much
    void tolerate(const Failure& failure, int& failures) {
        failures = heard ? 1 : failures + 1;
        if (failures == kMostFailures) {
            throw;
        }
        progress.say(failure.what());
    }

    void readEvents() {
        EventReader reader([this](const Event& event) { take(event); });
        std::vector<std::string> headers = {"Accept: text/event-stream"};
        if (!lastEvent.empty()) {
            headers.push_back("Last-Event-ID: " + lastEvent);
        }
        api.download(path + "/events", {},
                     [&reader](std::string_view piece) { reader.read(piece); }, headers,
                     {interrupts.descriptor(), [this] {
                          if (interrupts.take()) {
                              interrupted();
                          }
                      }});
    }

    void take(const Event& event) {
        heard = true;
        lastEvent = event.id;
        if (event.kind == "state") {
            take(parseJson(event.data));
            if (hasEnded()) {
                throw Ended();
            }
        } else if (event.kind == "progress") {
            const Json data = parseJson(event.data);
            const std::string hottest = textOf(data, "hottest");
            progress.say(textOf(collection, "state") + ", " +
                         std::to_string(static_cast<long>(numberOf(data, "elapsedSeconds"))) +
                         " s" + (hottest.empty() ? "" : ", hottest: " + shortName(hottest)));
        }
    }

    void take(Json changed) {
        const std::string before = textOf(collection, "state");
        const bool confirmed = !flagOf(collection, "notConfirmed");
        collection = std::move(changed);
        if (textOf(collection, "state") != before ||
            (confirmed && flagOf(collection, "notConfirmed"))) {
            showState();
        }
    }

    void showState() {
        progress.say(textOf(collection, "state") +
                     (flagOf(collection, "notConfirmed") ? ", not confirmed by its agent" : ""));
    }

    void interrupted() {
        progress.end();
        if (std::exchange(cancelling, true)) {
            throw Left();
        }
        progress.say("Cancelling the collection; Ctrl-C again leaves it alone.");
        (void)cancelApi.post(path + "/cancel");  // what it becomes is told by the events
    }

    Api& api;
    Api cancelApi;  // while the other one follows
    Interrupts& interrupts;
    Json collection;
    std::string path;
    std::string lastEvent;
    bool heard = false;  // anything since the events were asked for
    bool cancelling = false;
    Progress progress;
};

Json make(const Options& options, Api& api) {
    JsonObject target;
    if (options.pid) {
        target.set("pid", *options.pid);
    } else {
        Json command;
        command.SetArray();
        for (const std::string& word : options.program) {
            command.PushBack(JsonValue(word.data(), static_cast<rapidjson::SizeType>(word.size()),
                                       command.GetAllocator()),
                             command.GetAllocator());
        }
        target.set("command", command);
    }
    JsonObject request;
    request.set("agent", api.agentId(options.agent));
    request.set("target", target.value());
    request.set("profile", options.kind);
    request.set("frequency", std::int64_t{options.frequency});
    if (options.durationSeconds) {
        request.set("durationSeconds", *options.durationSeconds);
    }
    request.set("children", options.children);
    if (!options.name.empty()) {
        request.set("name", options.name);
    }
    return api.post("collections", &request.value());
}

}  // namespace

int profile(const Options& options, Api& api, HttpClient& forCancels) {
    Interrupts interrupts;  // first: one that comes early is not lost
    Json collection = make(options, api);
    const std::string id = textOf(collection, "id");
    const std::string path = "collections/" + percentEncoded(id);
    std::cerr << "Collection " << printable(id) << "\n";
    try {
        collection = Follower(api, forCancels, interrupts, std::move(collection)).follow();
    } catch (const Left&) {
        throw Failure("The server goes on cancelling the collection; \"kolvan show " + id +
                      "\" tells what became of it.");
    }
    const std::string state = textOf(collection, "state");
    if (state == "failed") {
        const std::string reason = textOf(collection, "error");
        throw Failure("The collection has failed" + (reason.empty() ? "." : ": " + reason));
    }
    JsonObject result;
    result.set("collection", collection);
    if (flagOf(collection, "hasProfile")) {
        const Json top = api.get(path + "/top.json", {{"count", std::to_string(options.count)}});
        result.set("top", top);
        if (!options.json) {
            std::cout << topView(top, options.count);
        }
        if (!options.file.empty()) {
            OutputFile file(options.file);
            api.download(path + "/profile.pb.gz", {},
                         [&file](std::string_view piece) { file.write(piece); });
            file.close();
        }
    } else if (!options.file.empty() && state == "done") {
        throw Failure("The collection has no profile.");
    }
    if (options.json) {
        std::cout << jsonText(result.value());
    }
    if (state == "cancelled") {
        std::cerr << "kolvan: The collection was cancelled.\n";
        return 1;
    }
    return 0;
}

}  // namespace kolvan::client
