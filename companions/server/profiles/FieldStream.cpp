#include "companions/server/profiles/FieldStream.h"

#include "companions/server/profiles/UnreadableProfile.h"

#include <cstring>
#include <string>

#include <protozero/types.hpp>

namespace kolvan::server::profiles {

namespace {

using protozero::pbf_wire_type;

constexpr std::size_t kBufferSize = std::size_t{256} * 1024;
constexpr std::uint64_t kLargestField = (std::uint64_t{1} << 29) - 1;

[[noreturn]] void refuseDamaged() {
    throw UnreadableProfile("The profile is damaged: it is no message of pprof.");
}

}  // namespace

FieldStream::FieldStream(GunzipStream& source, std::size_t mostBytes)
    : stream(source), most(mostBytes), buffer(kBufferSize) {}

bool FieldStream::next() {
    if (!provide(1)) {
        return false;
    }
    const std::uint64_t key = readVarint();
    if (key >> 3 == 0 || key >> 3 > kLargestField) {
        refuseDamaged();
    }
    fieldNumber = static_cast<std::uint32_t>(key >> 3);
    const auto type = static_cast<pbf_wire_type>(key & 7);
    isBytes = type == pbf_wire_type::length_delimited;
    isNumber = type == pbf_wire_type::varint;
    switch (type) {
        case pbf_wire_type::varint:
            value = readVarint();
            return true;
        case pbf_wire_type::length_delimited:
            content = readBytes(readVarint());
            return true;
        case pbf_wire_type::fixed64:
            (void)readBytes(8);  // pprof has none; a later version may
            return true;
        case pbf_wire_type::fixed32:
            (void)readBytes(4);
            return true;
        default:
            refuseDamaged();
    }
}

std::uint64_t FieldStream::readVarint() {
    std::uint64_t number = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        if (!provide(1)) {
            refuseDamaged();
        }
        const auto byte = static_cast<unsigned char>(buffer[begin++]);
        number |= std::uint64_t{byte & 0x7FU} << shift;
        if (byte < 0x80) {
            return number;
        }
    }
    refuseDamaged();
}

std::string_view FieldStream::readBytes(std::uint64_t count) {
    if (count > most) {
        throw UnreadableProfile("The profile is too large: a single part of it has more than " +
                                std::to_string(most) + " bytes.");
    }
    if (!provide(static_cast<std::size_t>(count))) {
        refuseDamaged();
    }
    const std::string_view bytes(buffer.data() + begin, static_cast<std::size_t>(count));
    begin += bytes.size();
    return bytes;
}

/// Sees to it that `count` bytes have been read ahead. @return false when there are not so many
bool FieldStream::provide(std::size_t count) {
    if (end - begin >= count) {
        return true;
    }
    std::memmove(buffer.data(), buffer.data() + begin, end - begin);
    end -= begin;
    begin = 0;
    while (end < count) {
        if (end == buffer.size()) {
            // What is announced may never come, so that memory follows what has come.
            buffer.resize(buffer.size() * 2);
        }
        const std::size_t read = stream.read(buffer.data() + end, buffer.size() - end);
        if (read == 0) {
            return false;
        }
        end += read;
    }
    return true;
}

}  // namespace kolvan::server::profiles
