#include "companions/server/profiles/ProfileBuilder.h"

#include "companions/server/base/Utf8.h"
#include "companions/server/profiles/ProfileMessage.h"

#include <algorithm>
#include <limits>
#include <map>
#include <numeric>

#include <protozero/pbf_builder.hpp>
#include <protozero/pbf_message.hpp>

namespace kolvan::server::profiles {

namespace {

using namespace pprof;  // the names of the fields
using protozero::pbf_message;
using protozero::pbf_wire_type;
using protozero::tag_and_type;

constexpr std::uint64_t kGreatestSum =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// A program has hundreds of libraries at most; for each one a file is looked for.
constexpr std::size_t kMostBuildIds = 4096;
constexpr std::size_t kLongestBuildId = 128;  // digits; linkers make 16 to 64

[[noreturn]] void refuseTooMany(std::uint64_t most, const std::string& what) {
    throw UnreadableProfile("The profile is too large: it has more than " + std::to_string(most) +
                            " " + what + ".");
}

void bound(std::size_t count, std::size_t most, const char* what) {
    if (count >= most) {
        refuseTooMany(most, what);
    }
}

[[noreturn]] void refuseDangling(const char* what) {
    throw UnreadableProfile("The profile is damaged: it names a " + std::string(what) +
                            " that it does not have.");
}

std::string_view viewOf(protozero::data_view view) {
    return {view.data(), view.size()};
}

/// Calls `take` with each number that follows another in `bytes`.
template <typename Take>
void forEachNumber(std::string_view bytes, Take take) {
    const char* position = bytes.data();
    const char* const end = bytes.data() + bytes.size();
    while (position != end) {
        take(protozero::decode_varint(&position, end));
    }
}

}  // namespace

void IdTable::add(std::uint64_t id) {
    counted = counted && id == entries.size() + 1;
    entries.emplace_back(id, static_cast<std::uint32_t>(entries.size()));
}

void IdTable::sort() {
    std::sort(entries.begin(), entries.end());
}

std::optional<std::uint32_t> IdTable::find(std::uint64_t id) const {
    if (counted) {
        return id - 1 < entries.size() ? std::optional(static_cast<std::uint32_t>(id - 1))
                                       : std::nullopt;
    }
    const auto entry =
        std::lower_bound(entries.begin(), entries.end(), std::pair(id, std::uint32_t{0}));
    return entry != entries.end() && entry->first == id ? std::optional(entry->second)
                                                        : std::nullopt;
}

ProfileBuilder::ProfileBuilder(const ProfileLimits& profileLimits, const CodeNames& codeNames)
    : limits(profileLimits), names(codeNames) {}

void ProfileBuilder::addSampleType(std::string_view bytes) {
    bound(types.size(), limits.sampleTypes, "values in each sample");
    auto& [name, unit] = types.emplace_back();
    pbf_message<ValueTypeField> message(bytes.data(), bytes.size());
    while (message.next()) {
        switch (message.tag_and_type()) {
            case tag_and_type(ValueTypeField::Type, pbf_wire_type::varint):
                name = message.get_uint64();
                break;
            case tag_and_type(ValueTypeField::Unit, pbf_wire_type::varint):
                unit = message.get_uint64();
                break;
            default:
                message.skip();
        }
    }
}

void ProfileBuilder::addSample(std::string_view bytes) {
    bound(profile.samples.size(), limits.samples, "samples");
    const std::size_t valuesBefore = profile.values.size();
    const auto takeValue = [&](std::uint64_t value) {
        bound(profile.values.size() - valuesBefore, limits.sampleTypes, "values in each sample");
        profile.values.push_back(value);
    };
    idBytes.clear();
    labelBytes.clear();
    protozero::pbf_builder<SampleField> labels(labelBytes);
    pbf_message<SampleField> message(bytes.data(), bytes.size());
    while (message.next()) {
        switch (message.tag_and_type()) {
            case tag_and_type(SampleField::LocationId, pbf_wire_type::length_delimited):
                idBytes += viewOf(message.get_view());
                break;
            case tag_and_type(SampleField::LocationId, pbf_wire_type::varint):
                protozero::add_varint_to_buffer(&idBytes, message.get_uint64());
                break;
            case tag_and_type(SampleField::Value, pbf_wire_type::length_delimited):
                forEachNumber(viewOf(message.get_view()), takeValue);
                break;
            case tag_and_type(SampleField::Value, pbf_wire_type::varint):
                takeValue(message.get_uint64());
                break;
            case tag_and_type(SampleField::Label, pbf_wire_type::length_delimited):
                labels.add_bytes(SampleField::Label, message.get_view());
                break;
            default:
                message.skip();
        }
    }
    const std::size_t count = profile.values.size() - valuesBefore;
    if (valuesOfEach.value_or(count) != count) {
        throw UnreadableProfile("The profile is damaged: its samples differ in their values.");
    }
    valuesOfEach = count;
    profile.samples.push_back({stacks.add(idBytes), labelSets.add(labelBytes)});
}

void ProfileBuilder::addMapping(std::string_view bytes) {
    bound(mappings.size(), limits.entries, "mappings");
    std::uint64_t id = 0;
    Mapping mapping;
    pbf_message<MappingField> message(bytes.data(), bytes.size());
    while (message.next()) {
        switch (message.tag_and_type()) {
            case tag_and_type(MappingField::Id, pbf_wire_type::varint):
                id = message.get_uint64();
                break;
            case tag_and_type(MappingField::FileName, pbf_wire_type::varint):
                mapping.path = message.get_uint64();
                break;
            case tag_and_type(MappingField::BuildId, pbf_wire_type::varint):
                mapping.buildId = message.get_uint64();
                break;
            default:
                message.skip();
        }
    }
    mappings.push_back(mapping);
    mappingIds.add(id);
}

void ProfileBuilder::addLocation(std::string_view bytes) {
    bound(locations.size(), limits.entries, "locations");
    std::uint64_t id = 0;
    Location location;
    location.linesBegin = static_cast<std::uint32_t>(lines.size());
    pbf_message<LocationField> message(bytes.data(), bytes.size());
    while (message.next()) {
        switch (message.tag_and_type()) {
            case tag_and_type(LocationField::Id, pbf_wire_type::varint):
                id = message.get_uint64();
                break;
            case tag_and_type(LocationField::MappingId, pbf_wire_type::varint):
                location.mapping = message.get_uint64();
                break;
            case tag_and_type(LocationField::Address, pbf_wire_type::varint):
                location.address = message.get_uint64();
                break;
            case tag_and_type(LocationField::Line, pbf_wire_type::length_delimited): {
                bound(lines.size(), limits.entries, "lines");
                std::uint64_t& function = lines.emplace_back();
                pbf_message<LineField> line(message.get_view());
                while (line.next()) {
                    if (line.tag_and_type() ==
                        tag_and_type(LineField::FunctionId, pbf_wire_type::varint)) {
                        function = line.get_uint64();
                    } else {
                        line.skip();
                    }
                }
                break;
            }
            default:
                message.skip();
        }
    }
    locations.push_back(location);
    locationIds.add(id);
}

void ProfileBuilder::addFunction(std::string_view bytes) {
    bound(functions.size(), limits.entries, "functions");
    std::uint64_t id = 0;
    Text name = 0;
    pbf_message<FunctionField> message(bytes.data(), bytes.size());
    while (message.next()) {
        switch (message.tag_and_type()) {
            case tag_and_type(FunctionField::Id, pbf_wire_type::varint):
                id = message.get_uint64();
                break;
            case tag_and_type(FunctionField::Name, pbf_wire_type::varint):
                name = message.get_uint64();
                break;
            default:
                message.skip();
        }
    }
    functions.push_back(name);
    functionIds.add(id);
}

void ProfileBuilder::addText(std::string_view bytes) {
    bound(texts.size(), limits.entries, "texts");
    keepText(bytes);
}

void ProfileBuilder::keepText(std::string_view bytes) {
    texts.push_back(validUtf8(bytes));
    textBytes += texts.back().size();
    if (textBytes > limits.bytes) {  // what is no UTF-8 grows
        refuseTooMany(limits.bytes, "bytes of text");
    }
}

void ProfileBuilder::addComment(std::uint64_t text) {
    bound(comments.size(), limits.entries, "comments");
    comments.push_back(text);
}

void ProfileBuilder::setDefaultSampleType(std::uint64_t text) {
    defaultType = text;
}

void ProfileBuilder::setBegin(std::int64_t nanoseconds) {
    profile.beginNanoseconds = nanoseconds;
}

void ProfileBuilder::setDuration(std::int64_t nanoseconds) {
    profile.durationNanoseconds = nanoseconds;
}

Profile ProfileBuilder::finish() {
    for (IdTable* const ids : {&mappingIds, &functionIds, &locationIds}) {
        ids->sort();
    }
    resolveTypes();
    checkSums();
    resolveMoments();
    for (const Text comment : comments) {
        profile.comments.push_back(copyOf(comment));
    }
    resolveFunctions();
    const std::vector<std::uint32_t> nodes = resolveStacks();
    for (Profile::Sample& sample : profile.samples) {
        sample.node = nodes[sample.node];
    }
    return std::move(profile);
}

const std::string& ProfileBuilder::text(Text position) const {
    if (position >= texts.size()) {
        throw UnreadableProfile("The profile is damaged: it names a text that it does not have.");
    }
    return texts[position];
}

/// A few bytes of the file can refer to the same long text again and again.
std::string ProfileBuilder::copyOf(Text position) {
    const std::string& copied = text(position);
    copiedBytes += copied.size();
    if (copiedBytes > limits.bytes) {
        refuseTooMany(limits.bytes, "bytes of names");
    }
    return copied;
}

void ProfileBuilder::resolveTypes() {
    const bool nameless = std::any_of(
        types.begin(), types.end(), [this](const auto& type) { return text(type.first).empty(); });
    if (types.empty() || nameless) {
        throw UnreadableProfile("The profile does not say what it measures.");
    }
    if (valuesOfEach.value_or(types.size()) != types.size()) {
        throw UnreadableProfile("The profile is damaged: its samples differ in their values.");
    }
    // Where the file does not say it: those of pprof's family show the last one.
    profile.defaultType = types.size() - 1;
    for (const auto& [name, unit] : types) {
        for (const Profile::SampleType& before : profile.types) {
            if (before.name == text(name)) {
                throw UnreadableProfile("The profile is damaged: two of its values have one name.");
            }
        }
        if (defaultType && *defaultType != 0 && text(name) == text(*defaultType)) {
            profile.defaultType = profile.types.size();
        }
        profile.types.push_back({copyOf(name), copyOf(unit)});
    }
}

/// Views add up values without a look at overflows.
void ProfileBuilder::checkSums() const {
    std::vector<std::uint64_t> sums(types.size());
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

void ProfileBuilder::resolveMoments() {
    std::map<ThreadKey, std::uint32_t> known;
    for (std::uint32_t set = 0; set < labelSets.size(); ++set) {
        const auto [thread, milliseconds] = readLabels(labelSets[set]);
        const auto [place, isNew] =
            known.try_emplace(thread, static_cast<std::uint32_t>(known.size()));
        if (isNew) {
            bound(known.size() - 1, limits.threads, "threads");
        }
        profile.moments.push_back({place->second, milliseconds});
    }
    // The map has the order that is wanted.
    std::vector<std::uint32_t> places(known.size());
    for (const auto& [thread, number] : known) {
        places[number] = static_cast<std::uint32_t>(profile.threads.size());
        profile.threads.push_back(
            {thread.process, thread.id, copyOf(thread.name), copyOf(thread.processName)});
    }
    for (Profile::Moment& moment : profile.moments) {
        moment.thread = places[moment.thread];
    }
}

std::pair<ProfileBuilder::ThreadKey, std::optional<std::int64_t>> ProfileBuilder::readLabels(
    std::string_view labels) const {
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
        const std::string& name = text(key);
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

/// The text under which the code without names in a module counts: one by one, addresses would tell
/// a person nothing.
ProfileBuilder::Text ProfileBuilder::namelessIn(Text module) {
    const auto [known, isNew] = namelessTexts.try_emplace(module, texts.size());
    if (isNew) {
        std::string_view path = text(module);
        path.remove_prefix(path.rfind('/') + 1);  // nothing where there is no '/'
        if (path.starts_with('[') && path.ends_with(']')) {
            path = path.substr(1, path.size() - 2);
        }
        texts.push_back(path.empty() ? "[unknown]" : "[" + std::string(path) + "+0x...]");
    }
    return known->second;
}

/// @return its position; nothing where the location is in no mapping
std::optional<std::uint32_t> ProfileBuilder::mappingOf(const Location& location) const {
    const std::optional<std::uint32_t> place = mappingIds.find(location.mapping);
    if (location.mapping != 0 && !place) {
        refuseDangling("mapping");
    }
    return place;
}

/// Whether all that the file says of a location is that it is somewhere in a module.
bool ProfileBuilder::isNameless(std::size_t location) {
    const std::uint32_t begin = locations[location].linesBegin;
    const std::uint32_t count = locations[location + 1].linesBegin - begin;
    if (count != 1) {
        return count == 0;
    }
    const std::optional<std::uint32_t> function = functionIds.find(lines[begin]);
    if (!function) {
        refuseDangling("function");
    }
    const std::optional<std::uint32_t> place = mappingOf(locations[location]);
    const Text nameless = namelessIn(place ? mappings[*place].path : 0);
    const std::string& name = text(functions[*function]);
    return name.empty() || name == text(nameless);
}

/// Asks for the names of code that the file has none for.
void ProfileBuilder::nameNameless() {
    std::map<Text, bool> asked;  // build-ids, and whether anything is known of them
    const auto isKnown = [&](Text buildId) {
        const auto before = asked.find(buildId);
        if (before != asked.end() || asked.size() == kMostBuildIds) {
            return before != asked.end() && before->second;
        }
        const std::size_t length = text(buildId).size();
        const bool known =
            length > 0 && length <= kLongestBuildId && !names.stampOf(text(buildId)).empty();
        asked.emplace(buildId, known);
        return known;
    };
    std::map<std::string, std::vector<std::uint32_t>> nameless;  // locations by build-id
    for (std::uint32_t index = 0; index + 1 < locations.size(); ++index) {
        const std::optional<std::uint32_t> place = mappingOf(locations[index]);
        if (place && isKnown(mappings[*place].buildId) && isNameless(index)) {
            nameless[text(mappings[*place].buildId)].push_back(index);
        }
    }
    for (auto& [buildId, positions] : nameless) {
        nameIn(buildId, positions);
    }
    std::sort(namedLater.begin(), namedLater.end());
}

void ProfileBuilder::nameIn(const std::string& buildId, std::vector<std::uint32_t>& nameless) {
    std::sort(nameless.begin(), nameless.end(), [this](std::uint32_t left, std::uint32_t right) {
        return locations[left].address < locations[right].address;
    });
    std::vector<std::uint64_t> addresses;
    addresses.reserve(nameless.size());
    for (const std::uint32_t index : nameless) {
        addresses.push_back(locations[index].address);
    }
    std::map<std::string, Text> added;  // neighbours are mostly of one function
    const std::vector<std::string> found = names.namesAt(buildId, addresses);
    for (std::size_t index = 0; index < found.size(); ++index) {
        if (!found[index].empty()) {
            const auto [name, isNew] = added.try_emplace(found[index], texts.size());
            if (isNew) {
                keepText(found[index]);
            }
            namedLater.emplace_back(nameless[index], name->second);
        }
    }
}

/// Finds out which calls are at each location, as pairs of name and module.
std::vector<std::pair<ProfileBuilder::Text, ProfileBuilder::Text>> ProfileBuilder::nameCalls() {
    std::vector<std::pair<Text, Text>> calls;
    texts.emplace_back();
    const Text noModule = texts.size() - 1;
    locations.push_back({0, 0, static_cast<std::uint32_t>(lines.size())});  // ends the last one
    nameNameless();
    auto later = namedLater.begin();
    for (std::uint32_t index = 0; index + 1 < locations.size(); ++index) {
        callsBegin.push_back(static_cast<std::uint32_t>(calls.size()));
        const std::optional<std::uint32_t> place = mappingOf(locations[index]);
        const Text module = place ? mappings[*place].path : noModule;
        if (later != namedLater.end() && later->first == index) {
            calls.emplace_back(later->second, module);
            ++later;
            continue;
        }
        for (std::uint32_t line = locations[index].linesBegin;
             line < locations[index + 1].linesBegin; ++line) {
            const std::optional<std::uint32_t> function = functionIds.find(lines[line]);
            if (!function) {
                refuseDangling("function");
            }
            const Text name = functions[*function];
            calls.emplace_back(text(name).empty() ? namelessIn(module) : name, module);
        }
        if (calls.size() == callsBegin.back()) {
            calls.emplace_back(namelessIn(module), module);
        }
    }
    callsBegin.push_back(static_cast<std::uint32_t>(calls.size()));
    texts.emplace_back("[no stack]");
    calls.emplace_back(texts.size() - 1, noModule);
    return calls;
}

void ProfileBuilder::resolveFunctions() {
    const std::vector<std::pair<Text, Text>> calls = nameCalls();
    // Texts are compared once, and their ranks from there on: the same long name may stand in
    // millions of pairs.
    std::vector<std::uint32_t> order(texts.size());
    std::iota(order.begin(), order.end(), 0U);
    std::sort(order.begin(), order.end(), [this](std::uint32_t left, std::uint32_t right) {
        return texts[left] < texts[right];
    });
    std::vector<std::uint32_t> ranks(texts.size());
    for (std::uint32_t index = 0; index < order.size(); ++index) {
        const bool same = index > 0 && texts[order[index - 1]] == texts[order[index]];
        ranks[order[index]] = same ? ranks[order[index - 1]] : index;
    }

    std::vector<std::uint64_t> keys;
    for (const auto& [name, module] : calls) {
        (void)text(module);  // throws where there is none
        keys.push_back((std::uint64_t{ranks[name]} << 32) | ranks[module]);
    }
    std::vector<std::uint64_t> different = keys;
    std::sort(different.begin(), different.end());
    different.erase(std::unique(different.begin(), different.end()), different.end());
    for (const std::uint64_t key : different) {
        profile.functions.push_back({copyOf(order[key >> 32]), copyOf(order[key & 0xFFFF'FFFF])});
    }
    for (const std::uint64_t key : keys) {
        callsAt.push_back(static_cast<std::uint32_t>(
            std::lower_bound(different.begin(), different.end(), key) - different.begin()));
    }
}

std::vector<std::uint32_t> ProfileBuilder::resolveStacks() {
    CallTreeBuilder builder;
    std::vector<std::uint32_t> nodes(stacks.size());
    std::vector<std::uint32_t> stack;
    std::size_t calls = 0;
    for (std::uint32_t number = 0; number < stacks.size(); ++number) {
        stack.clear();
        forEachNumber(stacks[number], [&](std::uint64_t id) {
            const std::optional<std::uint32_t> location = locationIds.find(id);
            if (!location) {
                refuseDangling("location");
            }
            const std::uint32_t begin = callsBegin[*location];
            const std::uint32_t count = callsBegin[*location + 1] - begin;
            if (count > limits.calls - calls) {
                refuseTooMany(limits.calls, "calls in its stacks");
            }
            calls += count;
            stack.insert(stack.end(), callsAt.begin() + begin, callsAt.begin() + begin + count);
        });
        if (stack.empty()) {
            stack.push_back(callsAt.back());  // "[no stack]"
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

}  // namespace kolvan::server::profiles
