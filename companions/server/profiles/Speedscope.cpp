#include "companions/server/profiles/Speedscope.h"

#include "companions/server/base/Utf8.h"
#include "companions/server/profiles/FunctionNumbers.h"
#include "companions/server/profiles/Weights.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace kolvan::server::profiles {

namespace {

/// Samples of a thread with the same stack in the same tenth of a second.
struct Group {
    std::uint32_t thread = 0;
    std::int64_t milliseconds = 0;
    std::uint32_t node = 0;
    std::uint64_t value = 0;
};

std::vector<Group> groupsOf(const Profile& profile, const Filter& filter) {
    const std::size_t type = typeOf(profile, filter);
    const std::vector<bool> admitted = admittedMoments(profile, filter);
    std::vector<Group> groups;
    for (std::size_t index = 0; index < profile.samples.size(); ++index) {
        const auto [node, moment] = profile.samples[index];
        const std::uint64_t value = profile.values[index * profile.types.size() + type];
        if (admitted[moment] && value > 0) {
            const Profile::Moment& taken = profile.moments[moment];
            groups.push_back({taken.thread, taken.milliseconds.value_or(0), node, value});
        }
    }
    const auto key = [](const Group& group) {
        return std::tie(group.thread, group.milliseconds, group.node);
    };
    std::sort(groups.begin(), groups.end(),
              [&](const Group& left, const Group& right) { return key(left) < key(right); });
    std::size_t kept = 0;
    for (std::size_t index = 0; index < groups.size(); ++index) {
        if (kept > 0 && key(groups[kept - 1]) == key(groups[index])) {
            groups[kept - 1].value += groups[index].value;
        } else {
            groups[kept++] = groups[index];
        }
    }
    groups.resize(kept);
    return groups;
}

/// Units other than these are refused by speedscope.
const std::string& unitFor(const std::string& unit) {
    static const std::array<std::string, 5> known = {"nanoseconds", "microseconds", "milliseconds",
                                                     "seconds", "bytes"};
    static const std::string none = "none";
    return std::find(known.begin(), known.end(), unit) == known.end() ? none : unit;
}

std::string titleOf(const Profile::Thread& thread) {
    std::string title = thread.name.empty() ? "thread" : thread.name;
    title += " (" + std::to_string(thread.id);
    if (thread.process != thread.id) {
        title += " of " + (thread.processName.empty() ? "process" : thread.processName) + " " +
                 std::to_string(thread.process);
    }
    return title + ")";
}

class SpeedscopeWriter {
public:
    SpeedscopeWriter(const Profile& shownProfile, const Profile::SampleType& type,
                     const std::vector<Group>& shownGroups, Output& output)
        : profile(shownProfile),
          unit(unitFor(type.unit)),
          groups(shownGroups),
          functions(profile),
          writer(output) {}

    void write(std::string_view name) {
        writer.StartObject();
        writeText(writer, "$schema", "https://www.speedscope.app/file-format-schema.json");
        writeText(writer, "name", name);
        writeText(writer, "exporter", "kolvan-server");
        writeFrames();
        writer.Key("profiles");
        writer.StartArray();
        for (std::size_t begin = 0; begin < groups.size();) {
            std::size_t end = begin;
            while (end < groups.size() && groups[end].thread == groups[begin].thread) {
                ++end;
            }
            writeThread(begin, end);
            begin = end;
        }
        writer.EndArray();
        writer.EndObject();
    }

private:
    void writeFrames() {
        const std::vector<CallTree::Node>& tree = profile.calls.nodes;
        std::vector<bool> seen(tree.size());
        seen[0] = true;
        for (const Group& group : groups) {
            for (std::uint32_t node = group.node; !seen[node]; node = tree[node].parent) {
                seen[node] = true;
                functions.use(tree[node].function);
            }
        }
        writer.Key("shared");
        writer.StartObject();
        writer.Key("frames");
        writer.StartArray();
        for (const std::uint32_t function : functions.assign()) {
            writer.StartObject();
            writeText(writer, "name", profile.functions[function].name);
            writeText(writer, "file", profile.functions[function].module);
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
    }

    void writeThread(std::size_t begin, std::size_t end) {
        writer.StartObject();
        writeText(writer, "type", "sampled");
        writeText(writer, "name", titleOf(profile.threads[groups[begin].thread]));
        writeText(writer, "unit", unit);
        writer.Key("samples");
        writer.StartArray();
        for (std::size_t index = begin; index < end; ++index) {
            writeStack(groups[index].node);
        }
        writer.EndArray();
        std::uint64_t total = 0;
        writer.Key("weights");
        writer.StartArray();
        for (std::size_t index = begin; index < end; ++index) {
            writer.Uint64(groups[index].value);
            total += groups[index].value;
        }
        writer.EndArray();
        writeNumber(writer, "startValue", 0);
        writeNumber(writer, "endValue", total);
        writer.EndObject();
    }

    void writeStack(std::uint32_t node) {
        stack.clear();
        for (; node != 0; node = profile.calls.nodes[node].parent) {
            stack.push_back(functions[profile.calls.nodes[node].function]);
        }
        writer.StartArray();
        for (auto frame = stack.rbegin(); frame != stack.rend(); ++frame) {
            writer.Uint(*frame);
        }
        writer.EndArray();
    }

    const Profile& profile;
    const std::string& unit;
    const std::vector<Group>& groups;
    FunctionNumbers functions;
    JsonWriter writer;
    std::vector<std::uint32_t> stack;
};

}  // namespace

void writeSpeedscope(const Profile& profile, const Filter& filter, std::string_view name,
                     const Sink& sink) {
    const std::vector<Group> groups = groupsOf(profile, filter);
    Output output(sink);
    SpeedscopeWriter(profile, profile.types[typeOf(profile, filter)], groups, output)
        .write(validUtf8(name));
    output.finish();
}

}  // namespace kolvan::server::profiles
