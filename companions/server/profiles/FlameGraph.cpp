#include "companions/server/profiles/FlameGraph.h"

#include "companions/server/profiles/FunctionNumbers.h"
#include "companions/server/profiles/Weights.h"

#include <cstdint>
#include <vector>

namespace kolvan::server::profiles {

namespace {

template <typename ValueOf>
void writeColumn(JsonWriter& writer, const char* key, const std::vector<std::uint32_t>& nodes,
                 ValueOf valueOf) {
    writer.Key(key);
    writer.StartArray();
    for (const std::uint32_t node : nodes) {
        writer.Int64(static_cast<std::int64_t>(valueOf(node)));
    }
    writer.EndArray();
}

}  // namespace

void writeFlameGraph(const Profile& profile, const Filter& filter, const Sink& sink) {
    const Profile::SampleType& type = profile.types[typeOf(profile, filter)];
    const std::vector<CallTree::Node>& tree = profile.calls.nodes;
    const Weights weights = weigh(profile, filter);
    FunctionNumbers functions(profile);
    std::vector<std::uint32_t> nodes = {0};
    std::vector<std::uint32_t> places(tree.size());  // of nodes in `nodes`
    for (std::uint32_t node = 1; node < tree.size(); ++node) {
        if (weights.total[node] > 0) {
            places[node] = static_cast<std::uint32_t>(nodes.size());
            nodes.push_back(node);
            functions.use(tree[node].function);
        }
    }

    Output output(sink);
    JsonWriter writer(output);
    writer.StartObject();
    writeText(writer, "sampleType", type.name);
    writeText(writer, "unit", type.unit);
    writeNumber(writer, "total", weights.total.front());
    writer.Key("functions");
    writer.StartArray();
    for (const std::uint32_t function : functions.assign()) {
        writer.StartObject();
        writeText(writer, "name", profile.functions[function].name);
        writeText(writer, "module", profile.functions[function].module);
        writer.EndObject();
    }
    writer.EndArray();
    writer.Key("nodes");
    writer.StartObject();
    writeColumn(writer, "parent", nodes,
                [&](std::uint32_t node) { return places[tree[node].parent]; });
    writeColumn(writer, "function", nodes, [&](std::uint32_t node) {
        return node == 0 ? std::int64_t{-1} : std::int64_t{functions[tree[node].function]};
    });
    writeColumn(writer, "self", nodes, [&](std::uint32_t node) { return weights.self[node]; });
    writeColumn(writer, "total", nodes, [&](std::uint32_t node) { return weights.total[node]; });
    writer.EndObject();
    writer.EndObject();
    output.finish();
}

}  // namespace kolvan::server::profiles
