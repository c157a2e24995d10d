#include "companions/server/profiles/Moments.h"

#include "companions/server/profiles/ProfileMessage.h"
#include "companions/server/profiles/Refusals.h"

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <protozero/pbf_message.hpp>

namespace kolvan::server::profiles {

namespace {

using namespace pprof;  // the names of the fields
using protozero::pbf_message;
using protozero::pbf_wire_type;
using protozero::tag_and_type;
using Text = ProfileEntries::Text;

struct ThreadKey {
    std::int64_t process = 0;
    std::int64_t id = 0;
    Text name = 0;
    Text processName = 0;

    auto operator<=>(const ThreadKey&) const = default;  // NOLINT(modernize-use-nullptr): its own 0
};

std::pair<ThreadKey, std::optional<std::int64_t>> readLabels(std::string_view labels,
                                                             const TextTable& texts) {
    std::pair<ThreadKey, std::optional<std::int64_t>> result;
    auto& [thread, milliseconds] = result;
    pbf_message<SampleField> message(labels.data(), labels.size());
    while (message.next(SampleField::Label, pbf_wire_type::length_delimited)) {
        Text key = 0;
        Text value = 0;
        std::int64_t number = 0;
        pbf_message<LabelField> label(message.get_view());
        while (label.next()) {
            switch (label.tag_and_type()) {
                case tag_and_type(LabelField::Key, pbf_wire_type::varint):
                    key = label.get_uint64();
                    break;
                case tag_and_type(LabelField::Text, pbf_wire_type::varint):
                    value = label.get_uint64();
                    break;
                case tag_and_type(LabelField::Number, pbf_wire_type::varint):
                    number = label.get_int64();
                    break;
                default:
                    label.skip();
            }
        }
        const std::string& name = texts[key];
        if (name == "thread") {
            thread.name = value;
        } else if (name == "tid") {
            thread.id = number;
        } else if (name == "process") {
            thread.processName = value;
        } else if (name == "pid") {
            thread.process = number;
        } else if (name == "time") {
            milliseconds = number;
        }
    }
    return result;
}

}  // namespace

void readMoments(ProfileEntries& entries, std::size_t mostThreads, Profile& profile) {
    std::map<ThreadKey, std::uint32_t> known;
    for (std::uint32_t set = 0; set < entries.labelSets.size(); ++set) {
        const auto [thread, milliseconds] = readLabels(entries.labelSets[set], entries.texts);
        const auto [place, isNew] =
            known.try_emplace(thread, static_cast<std::uint32_t>(known.size()));
        if (isNew) {
            bound(known.size() - 1, mostThreads, "threads");
        }
        profile.moments.push_back({place->second, milliseconds});
    }
    // The map has the order that is wanted.
    std::vector<std::uint32_t> places(known.size());
    for (const auto& [thread, number] : known) {
        places[number] = static_cast<std::uint32_t>(profile.threads.size());
        profile.threads.push_back({thread.process, thread.id, entries.texts.copyOf(thread.name),
                                   entries.texts.copyOf(thread.processName)});
    }
    for (Profile::Moment& moment : profile.moments) {
        moment.thread = places[moment.thread];
    }
}

}  // namespace kolvan::server::profiles
