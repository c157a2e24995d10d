#pragma once

#include "companions/server/profiles/ByteTable.h"
#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileReader.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server::profiles {

/// Positions by the ids that a file gives to its entries, which may be any numbers. Most files
/// count them from 1, and are found without a search then.
class IdTable {
public:
    /// Gives `id` the next position.
    void add(std::uint64_t id);

    /// Has to be called between the last `add()` and the first `find()`.
    void sort();

    /// @return the first position with this id, if there is one
    std::optional<std::uint32_t> find(std::uint64_t id) const;

private:
    // By id. A hash table could be slowed down without end by ids that are chosen for it.
    std::vector<std::pair<std::uint64_t, std::uint32_t>> entries;
    bool counted = true;  // from 1, without a gap
};

/// Collects the entries of a pprof message, which may come in any order, and puts the profile
/// together at the end: only then are the texts known that all the others refer to.
class ProfileBuilder {
public:
    /// @param codeNames outlive the builder
    ProfileBuilder(const ProfileLimits& limits, const CodeNames& codeNames);

    // Each takes the bytes of one field of the message.
    // They throw UnreadableProfile for what is beyond the limits, protozero::exception for no
    // message.
    void addSampleType(std::string_view bytes);
    void addSample(std::string_view bytes);
    void addMapping(std::string_view bytes);
    void addLocation(std::string_view bytes);
    void addFunction(std::string_view bytes);
    void addText(std::string_view bytes);
    void addComment(std::uint64_t text);
    void setDefaultSampleType(std::uint64_t text);
    void setBegin(std::int64_t nanoseconds);
    void setDuration(std::int64_t nanoseconds);

    /// Puts the profile together. The builder is spent afterwards.
    /// @throws UnreadableProfile, protozero::exception
    Profile finish();

private:
    using Text = std::uint64_t;  // a position among the texts, as the file has it

    struct Mapping {
        Text path = 0;
        Text buildId = 0;
    };

    struct Location {
        std::uint64_t mapping = 0;  // its id
        std::uint64_t address = 0;
        std::uint32_t linesBegin = 0;  // in `lines`; its end is the next one's beginning
    };

    struct ThreadKey {
        std::int64_t process = 0;
        std::int64_t id = 0;
        Text name = 0;
        Text processName = 0;

        auto operator<=>(const ThreadKey&) const = default;
    };

    void keepText(std::string_view bytes);
    const std::string& text(Text position) const;
    std::string copyOf(Text position);
    void resolveTypes();
    void checkSums() const;
    void resolveMoments();
    std::pair<ThreadKey, std::optional<std::int64_t>> readLabels(std::string_view labels) const;
    Text namelessIn(Text module);
    std::optional<std::uint32_t> mappingOf(const Location& location) const;
    bool isNameless(std::size_t location);
    void nameNameless();
    void nameIn(const std::string& buildId, std::vector<std::uint32_t>& nameless);
    std::vector<std::pair<Text, Text>> nameCalls();
    void resolveFunctions();
    std::vector<std::uint32_t> resolveStacks();

    const ProfileLimits limits;
    const CodeNames& names;
    Profile profile;

    std::vector<std::pair<Text, Text>> types;  // name and unit
    std::optional<Text> defaultType;
    std::vector<Text> comments;
    std::vector<std::string> texts;
    std::uint64_t textBytes = 0;
    std::uint64_t copiedBytes = 0;
    std::vector<Mapping> mappings;
    std::vector<Text> functions;  // name of each
    std::vector<Location> locations;
    std::vector<std::uint64_t> lines;  // ids of functions
    IdTable mappingIds;
    IdTable functionIds;
    IdTable locationIds;

    // What samples have in common is kept once, as the file has it, until it can be understood.
    ByteTable stacks;     // ids of locations
    ByteTable labelSets;  // messages with labels only
    std::optional<std::size_t> valuesOfEach;
    std::string idBytes;  // of the sample that is being read
    std::string labelBytes;

    std::vector<std::uint32_t> callsBegin;  // of each location, in `callsAt`
    std::vector<std::uint32_t> callsAt;     // functions, the innermost first; then "[no stack]"
    std::map<Text, Text> namelessTexts;     // names of what has none, by module
    std::vector<std::pair<std::uint32_t, Text>> namedLater;  // locations, and names from elsewhere
};

}  // namespace kolvan::server::profiles
