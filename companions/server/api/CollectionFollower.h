#pragma once

#include "companions/server/api/CollectionView.h"
#include "companions/server/api/EventPosition.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::api {

/// What a look at a collection has found.
struct News {
    std::string events;  ///< as they go to the listener; empty where there is nothing new
    bool more = false;   ///< the next look finds something at once
    bool ended = false;  ///< nothing follows

    /// The collection has ended and this is its profile: `tellTop` comes before the next look.
    std::optional<std::filesystem::path> profile;
};

/// Follows one collection for one listener. Each look takes a bounded piece of what has come since
/// the one before, so that it takes the same memory whatever the collection writes and however long
/// the listener has been away.
///
/// Threads: one at a time.
class CollectionFollower {
public:
    /// @param from how far the listener has come already
    /// @param outside outlives this one
    CollectionFollower(const Surroundings& outside, CollectionId collection, EventPosition from);

    /// Looks for news. Blocks on the store and the disk.
    /// @throws StoreError, std::system_error
    News look();

    /// The event with the top of the profile, which whoever looks has made.
    /// @param top null where none can be made
    std::string tellTop(const std::shared_ptr<const std::string>& top);

private:
    std::string event(std::string_view name, std::string_view data) const;
    void addState(News& news, const ShownCollection& shown);
    void addOutput(News& news, OutputChannel channel, bool over);
    void addProgress(News& news, bool over);

    /// Reads the next piece of a channel.
    std::string read(News& news, OutputChannel channel);

    const Surroundings& parts;
    const CollectionId id;
    EventPosition position;
    std::string lastState;  // as it was sent
};

}  // namespace kolvan::server::api
