#pragma once

#include "companions/server/base/Uuid.h"

#include <compare>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace kolvan::server {

/// The name of one thing of the kind `Thing`, opaque to everybody but whoever made it. Ids of
/// different kinds do not mix: an agent's is refused by the compiler where a collection's is
/// wanted.
template <typename Thing>
struct Id {
    std::string text;

    Id() = default;
    explicit Id(std::string idText) : text(std::move(idText)) {}

    /// Makes one that nothing else has: a random UUID.
    static Id make() { return Id(newUuid()); }

    bool empty() const noexcept { return text.empty(); }
    auto operator<=>(const Id&) const = default;  // NOLINT(modernize-use-nullptr): its own 0
};

}  // namespace kolvan::server

template <typename Thing>
struct std::hash<kolvan::server::Id<Thing>> {
    std::size_t operator()(const kolvan::server::Id<Thing>& id) const noexcept {
        return std::hash<std::string>()(id.text);
    }
};
