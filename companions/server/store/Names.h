#pragma once

#include "companions/server/store/Records.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

/// The words for the values of the records' enumerations, as they are kept and shown. They outlive
/// versions of the server: a word is never changed.
namespace kolvan::server {

template <typename Value>
struct Names;

template <>
struct Names<AgentPresence> {
    static constexpr std::array<std::string_view, 3> words = {"connected", "left", "lost"};
};

template <>
struct Names<OperationKind> {
    static constexpr std::array<std::string_view, 6> words = {
        "collection", "collectionCommand", "processList", "execute", "cancelAll", "stop"};
};

template <>
struct Names<OperationState> {
    static constexpr std::array<std::string_view, 6> words = {"queued",   "taken",     "running",
                                                              "finished", "withdrawn", "abandoned"};
};

template <>
struct Names<OutputChannel> {
    static constexpr std::array<std::string_view, 3> words = {"stdout", "stderr", "feedback"};
};

template <>
struct Names<CollectionState> {
    static constexpr std::array<std::string_view, 6> words = {"waiting", "running", "stopping",
                                                              "done",    "failed",  "cancelled"};
};

template <>
struct Names<Role> {
    static constexpr std::array<std::string_view, 3> words = {"viewer", "engineer",
                                                              "administrator"};
};

template <>
struct Names<PackageArchitecture> {
    static constexpr std::array<std::string_view, 2> words = {"x86", "x64"};
};

/// Whether the values of this type have words.
template <typename Value>
concept Named = requires {
    Names<Value>::words;
};

template <Named Value>
constexpr std::string_view nameOf(Value value) noexcept {
    return Names<Value>::words[static_cast<std::size_t>(value)];
}

/// The value with this word; nothing when no value has it.
template <Named Value>
constexpr std::optional<Value> valueOf(std::string_view word) noexcept {
    const auto& words = Names<Value>::words;
    const auto* const found = std::find(words.begin(), words.end(), word);
    if (found == words.end()) {
        return std::nullopt;
    }
    return static_cast<Value>(found - words.begin());
}

}  // namespace kolvan::server
