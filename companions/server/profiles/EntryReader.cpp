#include "companions/server/profiles/EntryReader.h"

#include "companions/server/profiles/PackedNumbers.h"
#include "companions/server/profiles/ProfileMessage.h"
#include "companions/server/profiles/Refusals.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <protozero/pbf_builder.hpp>
#include <protozero/pbf_message.hpp>

namespace kolvan::server::profiles {

namespace {

using namespace pprof;  // the names of the fields
using protozero::pbf_message;
using protozero::pbf_wire_type;
using protozero::tag_and_type;

std::string_view viewOf(protozero::data_view view) {
    return {view.data(), view.size()};
}

}  // namespace

EntryReader::EntryReader(const ProfileLimits& profileLimits, ProfileEntries& profileEntries)
    : limits(profileLimits), entries(profileEntries) {}

void EntryReader::addSampleType(std::string_view bytes) {
    bound(entries.types.size(), limits.sampleTypes, "values in each sample");
    auto& [name, unit] = entries.types.emplace_back();
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

void EntryReader::addSample(std::string_view bytes) {
    bound(entries.samples.size(), limits.samples, "samples");
    const std::size_t valuesBefore = entries.values.size();
    const auto takeValue = [&](std::uint64_t value) {
        bound(entries.values.size() - valuesBefore, limits.sampleTypes, "values in each sample");
        entries.values.push_back(value);
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
    const std::size_t count = entries.values.size() - valuesBefore;
    if (entries.valuesOfEach.value_or(count) != count) {
        throw UnreadableProfile("The profile is damaged: its samples differ in their values.");
    }
    entries.valuesOfEach = count;
    entries.samples.push_back({entries.stacks.add(idBytes), entries.labelSets.add(labelBytes)});
}

void EntryReader::addMapping(std::string_view bytes) {
    bound(entries.mappings.size(), limits.entries, "mappings");
    std::uint64_t id = 0;
    ProfileEntries::Mapping mapping;
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
    entries.mappings.push_back(mapping);
    entries.mappingIds.add(id);
}

void EntryReader::addLocation(std::string_view bytes) {
    bound(entries.locations.size(), limits.entries, "locations");
    std::uint64_t id = 0;
    ProfileEntries::Location location;
    location.linesBegin = static_cast<std::uint32_t>(entries.lines.size());
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
                bound(entries.lines.size(), limits.entries, "lines");
                std::uint64_t& function = entries.lines.emplace_back();
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
    entries.locations.push_back(location);
    entries.locationIds.add(id);
}

void EntryReader::addFunction(std::string_view bytes) {
    bound(entries.functions.size(), limits.entries, "functions");
    std::uint64_t id = 0;
    ProfileEntries::Text name = 0;
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
    entries.functions.push_back(name);
    entries.functionIds.add(id);
}

void EntryReader::addText(std::string_view bytes) {
    bound(entries.texts.size(), limits.entries, "texts");
    entries.texts.add(bytes);
}

void EntryReader::addComment(std::uint64_t text) {
    bound(entries.comments.size(), limits.entries, "comments");
    entries.comments.push_back(text);
}

}  // namespace kolvan::server::profiles
