#include "companions/server/profiles/Weights.h"

#include <algorithm>
#include <utility>

namespace kolvan::server::profiles {

std::size_t typeOf(const Profile& profile, const Filter& filter) {
    if (filter.sampleType.empty()) {
        return profile.defaultType;
    }
    const auto type =
        std::find_if(profile.types.begin(), profile.types.end(),
                     [&](const Profile::SampleType& one) { return one.name == filter.sampleType; });
    if (type == profile.types.end()) {
        std::string names;
        for (const Profile::SampleType& one : profile.types) {
            names += (names.empty() ? "'" : ", '") + one.name + "'";
        }
        throw BadFilter("The profile has no sample type '" + filter.sampleType +
                        "'; what it has is " + names + ".");
    }
    return static_cast<std::size_t>(type - profile.types.begin());
}

std::vector<bool> admittedMoments(const Profile& profile, const Filter& filter) {
    std::vector<bool> admitted;
    admitted.reserve(profile.moments.size());
    for (const Profile::Moment& moment : profile.moments) {
        const bool thread = !filter.thread || profile.threads[moment.thread].id == *filter.thread;
        const bool from =
            !filter.from || (moment.milliseconds && *moment.milliseconds >= *filter.from);
        const bool to = !filter.to || (moment.milliseconds && *moment.milliseconds < *filter.to);
        admitted.push_back(thread && from && to);
    }
    return admitted;
}

Weights weigh(const Profile& profile, const Filter& filter) {
    const std::size_t type = typeOf(profile, filter);
    const std::vector<bool> admitted = admittedMoments(profile, filter);
    Weights weights;
    weights.self.resize(profile.calls.nodes.size());
    for (std::size_t index = 0; index < profile.samples.size(); ++index) {
        const Profile::Sample& sample = profile.samples[index];
        if (admitted[sample.moment]) {
            weights.self[sample.node] += profile.values[index * profile.types.size() + type];
        }
    }
    weights.total = totalsOf(profile.calls, weights.self);
    return weights;
}

std::vector<std::uint64_t> totalsOf(const CallTree& tree, std::vector<std::uint64_t> self) {
    std::vector<std::uint64_t> totals = std::move(self);
    for (std::size_t node = tree.nodes.size() - 1; node > 0; --node) {
        totals[tree.nodes[node].parent] += totals[node];
    }
    return totals;
}

Weights weighFunctions(const CallTree& tree, const Weights& nodes, std::size_t functions) {
    Weights weights{std::vector<std::uint64_t>(functions), std::vector<std::uint64_t>(functions)};
    std::vector<std::uint32_t> way;               // from the top to the node at hand
    std::vector<std::uint32_t> onWay(functions);  // how often each function stands on it
    for (std::uint32_t node = 1; node < tree.nodes.size(); ++node) {
        const auto [parent, function] = tree.nodes[node];
        while (!way.empty() && way.back() != parent) {
            --onWay[tree.nodes[way.back()].function];
            way.pop_back();
        }
        weights.self[function] += nodes.self[node];
        weights.total[function] += onWay[function] == 0 ? nodes.total[node] : 0;
        ++onWay[function];
        way.push_back(node);
    }
    return weights;
}

}  // namespace kolvan::server::profiles
