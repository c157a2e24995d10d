#include "companions/server/profiles/LocationCalls.h"

#include "companions/server/profiles/Refusals.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::server::profiles {

namespace {

using Text = ProfileEntries::Text;
using Call = std::pair<Text, Text>;  // the names of a function and its module

// A program has hundreds of libraries at most; for each one a file is looked for.
constexpr std::size_t kMostBuildIds = 4096;
constexpr std::size_t kLongestBuildId = 128;  // digits; linkers make 16 to 64

/// Finds out which calls are at each location.
class CallFinder {
public:
    CallFinder(ProfileEntries& profileEntries, const CodeNames& codeNames)
        : entries(profileEntries), names(codeNames) {}

    /// @param begins takes the position of each location's first call, and then that of their end
    /// @return the calls of all locations, and one more: "[no stack]"
    std::vector<Call> find(std::vector<std::uint32_t>& begins);

private:
    Text namelessIn(Text module);
    std::optional<std::uint32_t> mappingOf(std::uint32_t location) const;
    Text functionOn(std::uint32_t line) const;
    bool isNameless(std::uint32_t location);
    void nameNameless();
    void nameIn(const std::string& buildId, std::vector<std::uint32_t>& nameless);

    ProfileEntries& entries;
    const CodeNames& names;
    std::map<Text, Text> namelessTexts;  // names of what has none, by module
    std::vector<std::pair<std::uint32_t, Text>> namedElsewhere;  // locations, and their functions
};

/// The text under which the code without names in a module counts: one by one, addresses would tell
/// a person nothing.
Text CallFinder::namelessIn(Text module) {
    const auto known = namelessTexts.find(module);
    if (known != namelessTexts.end()) {
        return known->second;
    }
    std::string_view path = entries.texts[module];
    path.remove_prefix(path.rfind('/') + 1);  // nothing where there is no '/'
    if (path.starts_with('[') && path.ends_with(']')) {
        path = path.substr(1, path.size() - 2);
    }
    const std::string name = path.empty() ? "[unknown]" : "[" + std::string(path) + "+0x...]";
    return namelessTexts[module] = entries.texts.add(name);
}

/// @return its position; nothing where the location is in no mapping
std::optional<std::uint32_t> CallFinder::mappingOf(std::uint32_t location) const {
    const std::uint64_t id = entries.locations[location].mapping;
    const std::optional<std::uint32_t> place = entries.mappingIds.find(id);
    if (id != 0 && !place) {
        refuseDangling("mapping");
    }
    return place;
}

/// @return its name
Text CallFinder::functionOn(std::uint32_t line) const {
    const std::optional<std::uint32_t> place = entries.functionIds.find(entries.lines[line]);
    if (!place) {
        refuseDangling("function");
    }
    return entries.functions[*place];
}

/// Whether all that the file says of a location in a mapping is that it is somewhere in there.
bool CallFinder::isNameless(std::uint32_t location) {
    const std::uint32_t begin = entries.locations[location].linesBegin;
    const std::uint32_t count = entries.locations[location + 1].linesBegin - begin;
    if (count != 1) {
        return count == 0;
    }
    const Text nameless = namelessIn(entries.mappings[mappingOf(location).value()].path);
    const std::string& name = entries.texts[functionOn(begin)];
    return name.empty() || name == entries.texts[nameless];
}

/// Asks for the names of code that the file has none for.
void CallFinder::nameNameless() {
    std::map<Text, bool> asked;  // build-ids, and whether anything is known of them
    const auto isKnown = [&](Text buildId) {
        const auto before = asked.find(buildId);
        if (before != asked.end() || asked.size() == kMostBuildIds) {
            return before != asked.end() && before->second;
        }
        const std::string& digits = entries.texts[buildId];
        const bool known =
            !digits.empty() && digits.size() <= kLongestBuildId && !names.stampOf(digits).empty();
        asked.emplace(buildId, known);
        return known;
    };
    std::map<std::string, std::vector<std::uint32_t>> nameless;  // locations by build-id
    for (std::uint32_t index = 0; index + 1 < entries.locations.size(); ++index) {
        const std::optional<std::uint32_t> place = mappingOf(index);
        if (place && isKnown(entries.mappings[*place].buildId) && isNameless(index)) {
            nameless[entries.texts[entries.mappings[*place].buildId]].push_back(index);
        }
    }
    for (auto& [buildId, positions] : nameless) {
        nameIn(buildId, positions);
    }
    std::sort(namedElsewhere.begin(), namedElsewhere.end());
}

void CallFinder::nameIn(const std::string& buildId, std::vector<std::uint32_t>& nameless) {
    std::sort(nameless.begin(), nameless.end(), [this](std::uint32_t left, std::uint32_t right) {
        return entries.locations[left].address < entries.locations[right].address;
    });
    std::vector<std::uint64_t> addresses;
    addresses.reserve(nameless.size());
    for (const std::uint32_t index : nameless) {
        addresses.push_back(entries.locations[index].address);
    }
    std::map<std::string, Text> added;  // neighbours are mostly of one function
    const std::vector<std::string> found = names.namesAt(buildId, addresses);
    for (std::size_t index = 0; index < found.size(); ++index) {
        if (!found[index].empty()) {
            const auto [name, isNew] = added.try_emplace(found[index]);
            if (isNew) {
                name->second = entries.texts.add(found[index]);
            }
            namedElsewhere.emplace_back(nameless[index], name->second);
        }
    }
}

std::vector<Call> CallFinder::find(std::vector<std::uint32_t>& begins) {
    std::vector<Call> calls;
    const Text noModule = entries.texts.add("");
    // The end of the last one's lines.
    entries.locations.push_back({0, 0, static_cast<std::uint32_t>(entries.lines.size())});
    nameNameless();
    auto elsewhere = namedElsewhere.begin();
    for (std::uint32_t index = 0; index + 1 < entries.locations.size(); ++index) {
        begins.push_back(static_cast<std::uint32_t>(calls.size()));
        const std::optional<std::uint32_t> place = mappingOf(index);
        const Text module = place ? entries.mappings[*place].path : noModule;
        if (elsewhere != namedElsewhere.end() && elsewhere->first == index) {
            calls.emplace_back(elsewhere->second, module);
            ++elsewhere;
            continue;
        }
        for (std::uint32_t line = entries.locations[index].linesBegin;
             line < entries.locations[index + 1].linesBegin; ++line) {
            const Text name = functionOn(line);
            calls.emplace_back(entries.texts[name].empty() ? namelessIn(module) : name, module);
        }
        if (calls.size() == begins.back()) {
            calls.emplace_back(namelessIn(module), module);
        }
    }
    begins.push_back(static_cast<std::uint32_t>(calls.size()));
    calls.emplace_back(entries.texts.add("[no stack]"), noModule);
    return calls;
}

/// The place of each text in the order of all; equal texts have the same one.
struct Ranks {
    std::vector<std::uint32_t> ofTexts;
    std::vector<std::uint32_t> texts;  // a text by its rank
};

Ranks rank(const TextTable& texts) {
    Ranks ranks;
    ranks.texts.resize(texts.size());
    std::iota(ranks.texts.begin(), ranks.texts.end(), 0U);
    std::sort(ranks.texts.begin(), ranks.texts.end(),
              [&](std::uint32_t left, std::uint32_t right) { return texts[left] < texts[right]; });
    ranks.ofTexts.resize(texts.size());
    for (std::uint32_t index = 0; index < texts.size(); ++index) {
        const bool same = index > 0 && texts[ranks.texts[index - 1]] == texts[ranks.texts[index]];
        ranks.ofTexts[ranks.texts[index]] = same ? ranks.ofTexts[ranks.texts[index - 1]] : index;
    }
    return ranks;
}

}  // namespace

LocationCalls findLocationCalls(ProfileEntries& entries, const CodeNames& names) {
    LocationCalls found;
    const std::vector<Call> calls = CallFinder(entries, names).find(found.begins);
    // Texts are compared once, and their ranks from there on: the same long name may stand in
    // millions of pairs.
    const Ranks ranks = rank(entries.texts);
    std::vector<std::uint64_t> keys;
    keys.reserve(calls.size());
    for (const auto& [name, module] : calls) {
        (void)entries.texts[module];  // throws where there is none
        keys.push_back((std::uint64_t{ranks.ofTexts[name]} << 32) | ranks.ofTexts[module]);
    }
    std::vector<std::uint64_t> different = keys;
    std::sort(different.begin(), different.end());
    different.erase(std::unique(different.begin(), different.end()), different.end());
    for (const std::uint64_t key : different) {
        found.functions.push_back({entries.texts.copyOf(ranks.texts[key >> 32]),
                                   entries.texts.copyOf(ranks.texts[key & 0xFFFF'FFFF])});
    }
    found.calls.reserve(keys.size());
    for (const std::uint64_t key : keys) {
        found.calls.push_back(static_cast<std::uint32_t>(
            std::lower_bound(different.begin(), different.end(), key) - different.begin()));
    }
    return found;
}

}  // namespace kolvan::server::profiles
