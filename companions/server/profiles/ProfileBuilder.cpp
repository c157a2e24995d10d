#include "companions/server/profiles/ProfileBuilder.h"

#include "companions/server/profiles/LocationCalls.h"
#include "companions/server/profiles/Moments.h"
#include "companions/server/profiles/PackedNumbers.h"
#include "companions/server/profiles/Refusals.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

namespace kolvan::server::profiles {

namespace {

constexpr std::uint64_t kGreatestSum =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

void resolveTypes(ProfileEntries& entries, Profile& profile) {
    TextTable& texts = entries.texts;
    const bool nameless = std::any_of(entries.types.begin(), entries.types.end(),
                                      [&](const auto& type) { return texts[type.first].empty(); });
    if (entries.types.empty() || nameless) {
        throw UnreadableProfile("The profile does not say what it measures.");
    }
    if (entries.valuesOfEach.value_or(entries.types.size()) != entries.types.size()) {
        throw UnreadableProfile("The profile is damaged: its samples differ in their values.");
    }
    // Where the file does not say it: those of pprof's family show the last one.
    profile.defaultType = entries.types.size() - 1;
    for (const auto& [name, unit] : entries.types) {
        for (const Profile::SampleType& before : profile.types) {
            if (before.name == texts[name]) {
                throw UnreadableProfile("The profile is damaged: two of its values have one name.");
            }
        }
        const ProfileEntries::Text wanted = entries.defaultType.value_or(0);
        if (wanted != 0 && texts[name] == texts[wanted]) {
            profile.defaultType = profile.types.size();
        }
        profile.types.push_back({texts.copyOf(name), texts.copyOf(unit)});
    }
}

/// Views add up values without a look at overflows.
void checkSums(const Profile& profile) {
    std::vector<std::uint64_t> sums(profile.types.size());
    for (std::size_t index = 0; index < profile.values.size(); ++index) {
        std::uint64_t& sum = sums[index % sums.size()];
        const std::uint64_t value = profile.values[index];
        if (value > kGreatestSum - sum) {
            throw UnreadableProfile(value > kGreatestSum
                                        ? "The profile is damaged: a sample has a negative value."
                                        : "The profile is damaged: its samples are too many.");
        }
        sum += value;
    }
}

/// Lays the stacks over each other.
/// @param profile gets its tree
/// @return the node of each stack
std::vector<std::uint32_t> resolveStacks(const ProfileEntries& entries, const LocationCalls& found,
                                         std::size_t mostCalls, Profile& profile) {
    CallTreeBuilder builder;
    std::vector<std::uint32_t> nodes(entries.stacks.size());
    std::vector<std::uint32_t> stack;
    std::size_t calls = 0;
    for (std::uint32_t number = 0; number < entries.stacks.size(); ++number) {
        stack.clear();
        forEachNumber(entries.stacks[number], [&](std::uint64_t id) {
            const std::optional<std::uint32_t> location = entries.locationIds.find(id);
            if (!location) {
                refuseDangling("location");
            }
            const auto begin = found.calls.begin() + found.begins[*location];
            const auto end = found.calls.begin() + found.begins[*location + 1];
            const auto count = static_cast<std::size_t>(end - begin);
            if (count > mostCalls - calls) {
                refuseTooMany(mostCalls, "calls in its stacks");
            }
            calls += count;
            stack.insert(stack.end(), begin, end);
        });
        if (stack.empty()) {
            stack.push_back(found.calls.back());  // "[no stack]"
        }
        std::reverse(stack.begin(), stack.end());
        nodes[number] = builder.add(stack);
    }
    CallTreeBuilder::Result result = builder.finish();
    profile.calls = std::move(result.tree);
    for (std::uint32_t& node : nodes) {
        node = result.places[node];
    }
    return nodes;
}

}  // namespace

Profile buildProfile(ProfileEntries entries, const ProfileLimits& limits, const CodeNames& names) {
    for (IdTable* const ids : {&entries.mappingIds, &entries.functionIds, &entries.locationIds}) {
        ids->sort();
    }
    Profile profile;
    profile.beginNanoseconds = entries.beginNanoseconds;
    profile.durationNanoseconds = entries.durationNanoseconds;
    profile.samples = std::move(entries.samples);
    profile.values = std::move(entries.values);
    resolveTypes(entries, profile);
    checkSums(profile);
    readMoments(entries, limits.threads, profile);
    for (const ProfileEntries::Text comment : entries.comments) {
        profile.comments.push_back(entries.texts.copyOf(comment));
    }
    LocationCalls found = findLocationCalls(entries, names);
    const std::vector<std::uint32_t> nodes = resolveStacks(entries, found, limits.calls, profile);
    profile.functions = std::move(found.functions);
    for (Profile::Sample& sample : profile.samples) {
        sample.node = nodes[sample.node];
    }
    return profile;
}

}  // namespace kolvan::server::profiles
