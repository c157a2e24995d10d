#pragma once

#include "companions/server/api/Api.h"
#include "companions/server/api/RecordJson.h"

#include <filesystem>
#include <string>

namespace kolvan::server::api {

/// The collection with this id, as it is shown. Blocks on the store.
/// @throws http::HttpError with status 404 when there is none
ShownCollection shownCollection(const Surroundings& parts, const std::string& id);

/// A collection with what is shown beside it. Blocks on the store.
ShownCollection shown(const Surroundings& parts, Collection collection);

/// Where the profile of a collection lies. Blocks on the store.
/// @throws http::HttpError with status 404 when the collection has none (yet)
std::filesystem::path profileOf(const Surroundings& parts, const std::string& id);

}  // namespace kolvan::server::api
