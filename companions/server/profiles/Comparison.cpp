#include "companions/server/profiles/Comparison.h"

#include "companions/server/profiles/Weights.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <numeric>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace kolvan::server::profiles {

namespace {

std::string_view fileName(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);  // nothing where there is no '/'
    return path;
}

double share(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

/// Puts the ways of two profiles together. First both are shown, then both are added.
class Merger {
public:
    /// Gets to know the functions of a profile that have weight.
    void show(const Profile& profile, const Weights& weights) {
        for (std::size_t node = 1; node < profile.calls.nodes.size(); ++node) {
            if (weights.total[node] > 0) {
                const Profile::Function& function =
                    profile.functions[profile.calls.nodes[node].function];
                known[keyOf(function)].module = function.module;
            }
        }
    }

    /// @return the functions in the order of their names
    std::vector<Comparison::Function> numberFunctions() {
        std::vector<Comparison::Function> functions;
        for (auto& [key, entry] : known) {
            entry.number = static_cast<std::uint32_t>(functions.size());
            functions.push_back({std::string(key.first), std::string(entry.module)});
        }
        return functions;
    }

    /// Adds the ways of a profile that have weight.
    /// @return number of each node while building, by its number in the profile
    std::vector<std::uint32_t> add(const Profile& profile, const Weights& weights) {
        std::vector<std::optional<std::uint32_t>> numbers(profile.functions.size());
        std::vector<std::uint32_t> nodes(profile.calls.nodes.size());
        for (std::size_t node = 1; node < nodes.size(); ++node) {
            if (weights.total[node] > 0) {
                const auto [parent, function] = profile.calls.nodes[node];
                std::optional<std::uint32_t>& number = numbers[function];
                if (!number) {
                    number = known.at(keyOf(profile.functions[function])).number;
                }
                nodes[node] = builder.child(nodes[parent], *number);
            }
        }
        return nodes;
    }

    CallTreeBuilder::Result finish() { return builder.finish(); }

private:
    using Key = std::pair<std::string_view, std::string_view>;  // name, and file name of the module

    struct Entry {
        std::string_view module;
        std::uint32_t number = 0;
    };

    static Key keyOf(const Profile::Function& function) {
        return {function.name, fileName(function.module)};
    }

    std::map<Key, Entry> known;  // its texts are those of the profiles
    CallTreeBuilder builder;
};

/// Weights of a profile's nodes at the places of the merged tree.
std::vector<std::uint64_t> moved(const Weights& weights, const std::vector<std::uint32_t>& nodes,
                                 const std::vector<std::uint32_t>& places) {
    std::vector<std::uint64_t> self(places.size());
    for (std::size_t node = 0; node < nodes.size(); ++node) {
        self[places[nodes[node]]] += weights.self[node];
    }
    return self;
}

/// Brings the functions, which are in the order of their names, into that of their differences.
void sortFunctions(Comparison& comparison) {
    const std::vector<Comparison::Function>& functions = comparison.functions;
    std::vector<std::uint32_t> order(functions.size());
    std::iota(order.begin(), order.end(), 0U);
    const auto key = [&](std::uint32_t number) {
        const Comparison::Function& function = functions[number];
        return std::tuple(-std::abs(function.selfDifference), -std::abs(function.totalDifference),
                          std::string_view(function.name), std::string_view(function.module));
    };
    std::sort(order.begin(), order.end(),
              [&](std::uint32_t left, std::uint32_t right) { return key(left) < key(right); });
    std::vector<std::uint32_t> places(order.size());
    std::vector<Comparison::Function> sorted;
    for (const std::uint32_t number : order) {
        places[number] = static_cast<std::uint32_t>(sorted.size());
        sorted.push_back(std::move(comparison.functions[number]));
    }
    comparison.functions = std::move(sorted);
    for (std::size_t node = 1; node < comparison.calls.nodes.size(); ++node) {
        std::uint32_t& function = comparison.calls.nodes[node].function;
        function = places[function];
    }
}

void writeColumn(JsonWriter& writer, const char* key, const std::vector<std::uint64_t>& values) {
    writer.Key(key);
    writer.StartArray();
    for (const std::uint64_t value : values) {
        writer.Uint64(value);
    }
    writer.EndArray();
}

void writeNodes(JsonWriter& writer, const Comparison& comparison) {
    writer.Key("nodes");
    writer.StartObject();
    writer.Key("parent");
    writer.StartArray();
    for (const CallTree::Node& node : comparison.calls.nodes) {
        writer.Uint(node.parent);
    }
    writer.EndArray();
    writer.Key("function");
    writer.StartArray();
    for (const CallTree::Node& node : comparison.calls.nodes) {
        writer.Int64(node.function == CallTree::kNoFunction ? -1 : std::int64_t{node.function});
    }
    writer.EndArray();
    writeColumn(writer, "baseSelf", comparison.baseSelf);
    writeColumn(writer, "baseTotal", comparison.baseTotals);
    writeColumn(writer, "otherSelf", comparison.otherSelf);
    writeColumn(writer, "otherTotal", comparison.otherTotals);
    writer.EndObject();
}

}  // namespace

Comparison compare(const Profile& base, const Profile& other, const Filter& filter) {
    const Profile::SampleType& type = base.types[typeOf(base, filter)];
    Filter same = filter;
    same.sampleType = type.name;
    if (other.types[typeOf(other, same)].unit != type.unit) {
        throw BadFilter("The profiles count '" + type.name + "' in different units.");
    }
    const Weights baseWeights = weigh(base, same);
    const Weights otherWeights = weigh(other, same);
    Merger merger;
    merger.show(base, baseWeights);
    merger.show(other, otherWeights);

    Comparison result;
    result.sampleType = type.name;
    result.unit = type.unit;
    result.functions = merger.numberFunctions();
    const std::vector<std::uint32_t> baseNodes = merger.add(base, baseWeights);
    const std::vector<std::uint32_t> otherNodes = merger.add(other, otherWeights);
    CallTreeBuilder::Result merged = merger.finish();
    result.calls = std::move(merged.tree);
    result.baseSelf = moved(baseWeights, baseNodes, merged.places);
    result.baseTotals = totalsOf(result.calls, result.baseSelf);
    result.baseTotal = result.baseTotals.front();
    result.otherSelf = moved(otherWeights, otherNodes, merged.places);
    result.otherTotals = totalsOf(result.calls, result.otherSelf);
    result.otherTotal = result.otherTotals.front();

    const std::size_t count = result.functions.size();
    const Weights inBase =
        weighFunctions(result.calls, {result.baseSelf, result.baseTotals}, count);
    const Weights inOther =
        weighFunctions(result.calls, {result.otherSelf, result.otherTotals}, count);
    for (std::size_t number = 0; number < count; ++number) {
        Comparison::Function& function = result.functions[number];
        function.baseSelf = inBase.self[number];
        function.baseTotal = inBase.total[number];
        function.otherSelf = inOther.self[number];
        function.otherTotal = inOther.total[number];
        function.selfDifference = share(function.otherSelf, result.otherTotal) -
                                  share(function.baseSelf, result.baseTotal);
        function.totalDifference = share(function.otherTotal, result.otherTotal) -
                                   share(function.baseTotal, result.baseTotal);
    }
    sortFunctions(result);
    return result;
}

void writeComparison(const Comparison& comparison, const Sink& sink) {
    Output output(sink);
    JsonWriter writer(output);
    writer.StartObject();
    writeText(writer, "sampleType", comparison.sampleType);
    writeText(writer, "unit", comparison.unit);
    writeNumber(writer, "baseTotal", comparison.baseTotal);
    writeNumber(writer, "otherTotal", comparison.otherTotal);
    writer.Key("functions");
    writer.StartArray();
    for (const Comparison::Function& function : comparison.functions) {
        writer.StartObject();
        writeText(writer, "name", function.name);
        writeText(writer, "module", function.module);
        writeNumber(writer, "baseSelf", function.baseSelf);
        writeNumber(writer, "baseTotal", function.baseTotal);
        writeNumber(writer, "otherSelf", function.otherSelf);
        writeNumber(writer, "otherTotal", function.otherTotal);
        writer.Key("selfDifference");
        writer.Double(function.selfDifference);
        writer.Key("totalDifference");
        writer.Double(function.totalDifference);
        writer.EndObject();
    }
    writer.EndArray();
    writeNodes(writer, comparison);
    writer.EndObject();
    output.finish();
}

}  // namespace kolvan::server::profiles
