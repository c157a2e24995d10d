#pragma once

#include "companions/server/profiles/GunzipStream.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kolvan::server::profiles {

/// The fields of a protobuf message, one after the other, while the message is being read: it is
/// never in memory as a whole.
class FieldStream {
public:
    /// @param source outlives this object
    /// @param mostBytes how much a single field may have
    FieldStream(GunzipStream& source, std::size_t mostBytes);

    /// Goes on to the next field.
    /// @return false at the end of the message
    /// @throws UnreadableProfile when it is damaged, and what the source throws
    bool next();

    /// Number of the field.
    std::uint32_t field() const noexcept { return fieldNumber; }

    /// Whether the field holds bytes: a text, a message or packed numbers.
    bool holdsBytes() const noexcept { return isBytes; }

    /// Whether the field holds one number.
    bool holdsNumber() const noexcept { return isNumber; }

    /// The bytes of a field that holds some; valid until `next()`.
    std::string_view bytes() const noexcept { return content; }

    /// The number of a field that holds one.
    std::uint64_t number() const noexcept { return value; }

private:
    std::uint64_t readVarint();
    std::string_view readBytes(std::uint64_t count);
    bool provide(std::size_t count);

    GunzipStream& stream;
    const std::size_t most;
    std::vector<char> buffer;
    std::size_t begin = 0;  // of what has been read ahead, in `buffer`
    std::size_t end = 0;

    std::uint32_t fieldNumber = 0;
    bool isBytes = false;
    bool isNumber = false;
    std::string_view content;
    std::uint64_t value = 0;
};

}  // namespace kolvan::server::profiles
