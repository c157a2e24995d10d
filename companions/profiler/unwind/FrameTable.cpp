#include "companions/profiler/unwind/FrameTable.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kMostFunctions = 4'000'000;  // 16 bytes each; a large browser has a million

// Encodings of pointers, as the Linux Standard Base numbers them.
constexpr std::uint8_t kFormat = 0x0F;
constexpr std::uint8_t kApplication = 0xF0;
constexpr std::uint8_t kRelativeToItself = 0x10;

constexpr std::uint32_t kLongFormat = 0xFFFF'FFFF;  // the length follows in 8 bytes

std::uint64_t asUnsigned(std::int64_t number) {
    return static_cast<std::uint64_t>(number);
}

/// @return nothing for an unknown format
std::optional<std::uint64_t> readFormat(ByteReader& reader, std::uint8_t format) {
    switch (format) {
        case 0x00:  // as wide as an address
        case 0x04:
        case 0x0C:
            return reader.read<std::uint64_t>();
        case 0x01:
            return reader.readUnsigned();
        case 0x02:
            return reader.read<std::uint16_t>();
        case 0x03:
            return reader.read<std::uint32_t>();
        case 0x09:
            return asUnsigned(reader.readSigned());
        case 0x0A:
            return asUnsigned(reader.read<std::int16_t>());
        case 0x0B:
            return asUnsigned(reader.read<std::int32_t>());
        default:
            return std::nullopt;
    }
}

}  // namespace

FrameTable::FrameTable(Kind sectionKind, std::span<const std::byte> bytes, std::uint64_t address)
    : kind(sectionKind), section(bytes), sectionAddress(address) {
    std::map<std::size_t, std::optional<Common>> commons;
    ByteReader reader(section);
    while (!reader.atEnd() && functions.size() < kMostFunctions) {
        const std::size_t offset = reader.position();
        const auto entry = readEntry(reader);
        if (!entry) {
            break;
        }
        if (entry->isCommon || offset > std::numeric_limits<std::uint32_t>::max()) {
            continue;
        }
        const auto [common, isNew] = commons.try_emplace(entry->commonOffset);
        if (isNew) {
            common->second = readCommon(entry->commonOffset);
        }
        if (!common->second) {
            continue;
        }
        ByteReader content(entry->content);
        const std::uint8_t encoding = common->second->pointerEncoding;
        const auto begin = readPointer(content, encoding, sectionAddress + entry->contentOffset);
        const auto length = readFormat(content, encoding & kFormat);
        // What the linker has dropped is left at address zero.
        if (!content.isBroken() && begin && *begin != 0 && length &&
            *length <= std::numeric_limits<std::uint32_t>::max()) {
            functions.push_back(
                {*begin, static_cast<std::uint32_t>(*length), static_cast<std::uint32_t>(offset)});
        }
    }
    std::sort(functions.begin(), functions.end(),
              [](const Place& left, const Place& right) { return left.begin < right.begin; });
    functions.shrink_to_fit();
}

std::optional<FrameTable::Function> FrameTable::find(std::uint64_t address) const {
    const auto behind =
        std::partition_point(functions.begin(), functions.end(),
                             [address](const Place& place) { return place.begin <= address; });
    if (behind == functions.begin()) {
        return std::nullopt;
    }
    const Place& place = *std::prev(behind);
    if (address - place.begin >= place.length) {
        return std::nullopt;
    }
    ByteReader reader(section);
    (void)reader.take(place.offset);  // it was there when the table was made
    const auto entry = readEntry(reader);
    const auto common = entry ? readCommon(entry->commonOffset) : std::nullopt;
    if (!common) {
        return std::nullopt;
    }
    ByteReader content(entry->content);
    const std::uint8_t encoding = common->pointerEncoding;
    (void)readPointer(content, encoding, 0);        // the table has it
    (void)readFormat(content, encoding & kFormat);  // and the length
    if (common->sized) {
        (void)content.take(content.readUnsigned());  // data for exceptions
    }
    const auto program =
        entry->content.subspan(std::min(content.position(), entry->content.size()));
    if (content.isBroken()) {
        return std::nullopt;
    }
    return Function{place.begin, *common, program};
}

std::optional<std::uint64_t> FrameTable::readPointer(ByteReader& reader, std::uint8_t encoding,
                                                     std::uint64_t base) {
    const std::uint64_t place = base + reader.position();
    const std::uint8_t application = encoding & kApplication;
    const auto number = readFormat(reader, encoding & kFormat);
    if (!number || (application != 0 && application != kRelativeToItself)) {
        return std::nullopt;
    }
    return application == 0 ? *number : place + *number;
}

std::optional<FrameTable::Entry> FrameTable::readEntry(ByteReader& reader) const {
    std::uint64_t length = reader.read<std::uint32_t>();
    const bool isLong = length == kLongFormat;
    if (isLong) {
        length = reader.read<std::uint64_t>();
    }
    Entry entry;
    const std::size_t idOffset = reader.position();
    const auto bytes = reader.take(length);
    if (reader.isBroken() || bytes.empty()) {
        return std::nullopt;  // an empty one marks the end
    }
    ByteReader content(bytes);
    const bool isWide = isLong && kind == Kind::Debugging;
    const std::uint64_t id = isWide ? content.read<std::uint64_t>() : content.read<std::uint32_t>();
    if (kind == Kind::Exceptions) {
        entry.isCommon = id == 0;
        entry.commonOffset = idOffset - id;  // backwards from here; checked where it is read
    } else {
        entry.isCommon = id == (isWide ? std::numeric_limits<std::uint64_t>::max()
                                       : std::numeric_limits<std::uint32_t>::max());
        entry.commonOffset = id;
    }
    entry.contentOffset = idOffset + content.position();
    entry.content = bytes.subspan(std::min(content.position(), bytes.size()));
    return content.isBroken() ? std::nullopt : std::optional(entry);
}

std::optional<FrameTable::Common> FrameTable::readCommon(std::size_t offset) const {
    ByteReader reader(section);
    (void)reader.take(offset);  // where that is too far, the reader is broken
    const auto entry = readEntry(reader);
    if (!entry || !entry->isCommon) {
        return std::nullopt;
    }
    Common common;
    ByteReader content(entry->content);
    const auto version = content.read<std::uint8_t>();
    const std::string_view augmentation = content.readText();
    if (version == 4) {
        const auto addressSize = content.read<std::uint8_t>();
        const auto segmentSize = content.read<std::uint8_t>();
        if (addressSize != 8 || segmentSize != 0) {
            return std::nullopt;
        }
    } else if (version != 1 && version != 3) {
        return std::nullopt;
    }
    common.codeFactor = content.readUnsigned();
    common.dataFactor = content.readSigned();
    common.returnColumn = version == 1 ? content.read<std::uint8_t>() : content.readUnsigned();
    if (augmentation.starts_with('z')) {
        common.sized = true;
        ByteReader data(content.take(content.readUnsigned()));
        for (const char letter : augmentation.substr(1)) {
            if (letter == 'R') {
                common.pointerEncoding = data.read<std::uint8_t>();
            } else if (letter == 'P') {  // who handles exceptions
                const auto encoding = data.read<std::uint8_t>();
                (void)readFormat(data, encoding & kFormat);
            } else if (letter == 'L') {  // how functions point to their handlers
                (void)data.read<std::uint8_t>();
            } else if (letter == 'S') {
                common.signalFrame = true;
            } else {
                return std::nullopt;
            }
        }
        if (data.isBroken()) {
            return std::nullopt;
        }
    } else if (!augmentation.empty()) {
        return std::nullopt;
    }
    common.program = entry->content.subspan(std::min(content.position(), entry->content.size()));
    return content.isBroken() ? std::nullopt : std::optional(common);
}

}  // namespace kolvan::profiler
