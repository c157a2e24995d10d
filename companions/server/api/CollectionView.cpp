#include "companions/server/api/CollectionView.h"

#include "companions/server/http/HttpError.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

/// An agent that runs is heard of within seconds of what it was told.
constexpr std::chrono::seconds kPatience{30};

constexpr std::string_view kProfileName = "profile.pb.gz";

/// The profile among a collection's files: the collector puts it into "data.0".
std::optional<CollectionFile> findProfile(const Surroundings& parts, const CollectionId& id) {
    const std::vector<CollectionFile> files = parts.store.collections().listFiles(id);
    const auto found = std::find_if(files.begin(), files.end(), [](const CollectionFile& file) {
        return file.complete &&
               std::filesystem::path(file.name).filename().string() == kProfileName;
    });
    return found == files.end() ? std::nullopt : std::optional(*found);
}

Collection collectionOf(const Surroundings& parts, const std::string& id) {
    const auto found = parts.store.collections().find(CollectionId(id));
    if (!found) {
        throw http::HttpError(404, "There is no collection with this id.");
    }
    return *found;
}

}  // namespace

ShownCollection shownCollection(const Surroundings& parts, const std::string& id) {
    return shown(parts, collectionOf(parts, id));
}

ShownCollection shown(const Surroundings& parts, Collection collection) {
    ShownCollection view;
    const std::optional<Agent> agent = parts.store.agents().find(collection.agent);
    view.agentName = agent ? agent->name : "";
    view.notConfirmed = !isFinal(collection.state) && collection.startTaken &&
                        !collection.startConfirmed &&
                        parts.clock.utc() - *collection.startTaken > kPatience;
    view.hasProfile = findProfile(parts, collection.id).has_value();
    view.collection = std::move(collection);
    return view;
}

std::filesystem::path profileOf(const Surroundings& parts, const std::string& id) {
    const Collection collection = collectionOf(parts, id);
    const std::optional<CollectionFile> profile = findProfile(parts, collection.id);
    if (!profile) {
        throw http::HttpError(404, isFinal(collection.state)
                                       ? "This collection has left no profile."
                                       : "The profile comes when the collection has ended.");
    }
    return parts.uploads.path(collection.id, profile->name);
}

}  // namespace kolvan::server::api
