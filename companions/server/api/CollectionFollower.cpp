#include "companions/server/api/CollectionFollower.h"

#include "companions/server/api/JsonWriter.h"
#include "companions/server/api/Progress.h"
#include "companions/server/base/Utf8.h"
#include "companions/server/http/Response.h"
#include "companions/server/store/Names.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace kolvan::server::api {

namespace {

constexpr std::size_t kPiece = std::size_t{32} * 1024;

std::string outputJson(OutputChannel channel, std::uint64_t offset, std::string_view text) {
    JsonWriter json;
    json.object([&] {
        json.member("channel", nameOf(channel));
        json.member("offset", offset);
        json.member("text", text);
    });
    return json.text();
}

std::string progressJson(const Progress& progress) {
    JsonWriter json;
    json.object([&] {
        json.member("elapsedSeconds", progress.elapsedSeconds);
        if (progress.samples) {
            json.member("samples", *progress.samples);
        }
        if (progress.hottest) {
            json.member("hottest", *progress.hottest);
        }
    });
    return json.text();
}

}  // namespace

CollectionFollower::CollectionFollower(const Surroundings& outside, CollectionId collection,
                                       EventPosition from)
    : parts(outside), id(std::move(collection)), position(std::move(from)) {}

News CollectionFollower::look() {
    News news;
    std::optional<Collection> found = parts.store.collections().find(id);
    if (!found) {
        news.ended = true;  // somebody has removed it
        return news;
    }
    // Read before the output: with a final state all of it is there.
    const ShownCollection shownNow = shown(parts, std::move(*found));
    const bool over = isFinal(shownNow.collection.state);
    if (position.start != shownNow.collection.start) {
        position = {};  // what was sent again begins anew
        position.start = shownNow.collection.start;
    }
    if (!over) {
        position.stage = EventPosition::Stage::Output;
        addState(news, shownNow);
    }
    addOutput(news, OutputChannel::Stdout, over);
    addOutput(news, OutputChannel::Stderr, over);
    addProgress(news, over);
    if (over && !news.more) {
        if (position.stage == EventPosition::Stage::Output && shownNow.hasProfile) {
            news.profile = profileOf(parts, id.text);
            news.more = true;
            return news;
        }
        position.stage = EventPosition::Stage::Ended;
        addState(news, shownNow);
        news.ended = true;
    }
    return news;
}

std::string CollectionFollower::tellTop(const std::shared_ptr<const std::string>& top) {
    position.stage = EventPosition::Stage::Top;
    return top ? event("top", *top) : "";
}

std::string CollectionFollower::event(std::string_view name, std::string_view data) const {
    return http::eventText({name, data, position.text()});
}

void CollectionFollower::addState(News& news, const ShownCollection& shown) {
    std::string state = recordJson(shown, writeCollection);
    if (state != lastState) {
        news.events += event("state", state);
        lastState = std::move(state);
    }
}

std::string CollectionFollower::read(News& news, OutputChannel channel) {
    // A crash of the machine may have made the file shorter than it was.
    position.of(channel) =
        std::min(position.of(channel), parts.outputs.size(position.start, channel));
    std::string bytes(kPiece, '\0');
    bytes.resize(parts.outputs.read(position.start, channel, position.of(channel), bytes));
    news.more = news.more || bytes.size() == kPiece;
    return bytes;
}

void CollectionFollower::addOutput(News& news, OutputChannel channel, bool over) {
    std::string bytes = read(news, channel);
    const bool last = over && bytes.size() < kPiece;
    if (!last) {
        bytes.resize(wholeUtf8Length(bytes));
    }
    if (!bytes.empty()) {
        const std::uint64_t offset = position.of(channel);
        position.of(channel) += bytes.size();
        news.events += event("output", outputJson(channel, offset, bytes));
    }
}

void CollectionFollower::addProgress(News& news, bool over) {
    const std::string bytes = read(news, OutputChannel::Feedback);
    const bool full = bytes.size() == kPiece;
    const std::size_t lastEnd = bytes.rfind('\n');
    const std::size_t wholeLines = lastEnd == std::string::npos ? 0 : lastEnd + 1;
    // The newest report is enough: who comes late has no use for each second of the past.
    std::optional<Progress> newest;
    for (std::string_view rest = std::string_view(bytes).substr(0, wholeLines); !rest.empty();) {
        const std::size_t end = rest.find('\n');
        if (const auto progress = progressOf(rest.substr(0, end))) {
            newest = progress;
        }
        rest.remove_prefix(end + 1);
    }
    // A line that fills a piece is none of a collector's, and one without an end gets none any
    // more after the collection's.
    const bool passOver = (full && wholeLines == 0) || (over && !full);
    position.of(OutputChannel::Feedback) += passOver ? bytes.size() : wholeLines;
    if (newest) {
        news.events += event("progress", progressJson(*newest));
    }
}

}  // namespace kolvan::server::api
