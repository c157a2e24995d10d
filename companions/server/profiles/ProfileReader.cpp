#include "companions/server/profiles/ProfileReader.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/profiles/EntryReader.h"
#include "companions/server/profiles/FieldStream.h"
#include "companions/server/profiles/PackedNumbers.h"
#include "companions/server/profiles/ProfileBuilder.h"
#include "companions/server/profiles/ProfileMessage.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <protozero/exception.hpp>
#include <protozero/pbf_reader.hpp>
#include <unistd.h>

namespace kolvan::server::profiles {

namespace {

using pprof::ProfileField;

void takeBytes(EntryReader& reader, ProfileField field, std::string_view bytes) {
    switch (field) {
        case ProfileField::SampleType:
            reader.addSampleType(bytes);
            break;
        case ProfileField::Sample:
            reader.addSample(bytes);
            break;
        case ProfileField::Mapping:
            reader.addMapping(bytes);
            break;
        case ProfileField::Location:
            reader.addLocation(bytes);
            break;
        case ProfileField::Function:
            reader.addFunction(bytes);
            break;
        case ProfileField::StringTable:
            reader.addText(bytes);
            break;
        case ProfileField::Comment:
            forEachNumber(bytes, [&](std::uint64_t text) { reader.addComment(text); });
            break;
        default:
            break;
    }
}

void takeNumber(EntryReader& reader, ProfileEntries& entries, ProfileField field,
                std::uint64_t number) {
    switch (field) {
        case ProfileField::TimeNanos:
            entries.beginNanoseconds = static_cast<std::int64_t>(number);
            break;
        case ProfileField::DurationNanos:
            entries.durationNanoseconds = static_cast<std::int64_t>(number);
            break;
        case ProfileField::Comment:
            reader.addComment(number);
            break;
        case ProfileField::DefaultSampleType:
            entries.defaultType = number;
            break;
        default:
            break;
    }
}

}  // namespace

Profile readProfile(ByteSource source, const ProfileLimits& limits, const CodeNames& names) {
    GunzipStream stream(std::move(source), limits.bytes);
    FieldStream fields(stream, limits.partBytes);
    ProfileEntries entries(limits);
    EntryReader reader(limits, entries);
    try {
        while (fields.next()) {
            const auto field = static_cast<ProfileField>(fields.field());
            if (fields.holdsBytes()) {
                takeBytes(reader, field, fields.bytes());
            } else if (fields.holdsNumber()) {
                takeNumber(reader, entries, field, fields.number());
            }
        }
        return buildProfile(std::move(entries), limits, names);
    } catch (const protozero::exception&) {
        throw UnreadableProfile("The profile is damaged: it is no message of pprof.");
    }
}

Profile readProfileFile(const std::filesystem::path& path, const ProfileLimits& limits) {
    const basekit2::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "open " + path.string());
    }
    return readProfile(sourceOf(file.get(), path), limits);
}

ByteSource sourceOf(int descriptor, const std::filesystem::path& path) {
    return [descriptor, path](char* buffer, std::size_t size) {
        ssize_t count = 0;
        do {
            count = ::read(descriptor, buffer, size);
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            throw std::system_error(errno, std::generic_category(), "read " + path.string());
        }
        return static_cast<std::size_t>(count);
    };
}

}  // namespace kolvan::server::profiles
