#include "companions/server/profiles/Collapsed.h"

#include "companions/server/profiles/Weights.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kolvan::server::profiles {

namespace {

std::string onOneLine(std::string name) {
    for (char& character : name) {
        const auto code = static_cast<unsigned char>(character);
        character = character == ';' ? ':' : code < 0x20 || code == 0x7F ? '?' : character;
    }
    return name;
}

}  // namespace

void writeCollapsed(const Profile& profile, const Filter& filter, const Sink& sink) {
    const std::vector<CallTree::Node>& tree = profile.calls.nodes;
    const Weights weights = weigh(profile, filter);
    Output output(sink);
    std::vector<std::uint32_t> way = {0};    // from the top to the node at hand
    std::vector<std::size_t> lengths = {0};  // of the line up to each of them
    std::string line;
    for (std::uint32_t node = 1; node < tree.size(); ++node) {
        while (way.back() != tree[node].parent) {
            way.pop_back();
            lengths.pop_back();
        }
        if (weights.total[node] == 0) {
            way.push_back(node);  // nothing is written of what is below
            lengths.push_back(lengths.back());
            continue;
        }
        line.resize(lengths.back());
        if (!line.empty()) {
            line += ';';
        }
        line += onOneLine(profile.functions[tree[node].function].name);
        way.push_back(node);
        lengths.push_back(line.size());
        if (weights.self[node] > 0) {
            output.write(line);
            output.write(" " + std::to_string(weights.self[node]) + "\n");
        }
    }
    output.finish();
}

}  // namespace kolvan::server::profiles
