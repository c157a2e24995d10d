#include "companions/server/profiles/GunzipStream.h"

#include "companions/server/profiles/UnreadableProfile.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string>
#include <utility>

// Without it, zlib's input pointer is not const.
#define ZLIB_CONST
#include <zlib.h>

namespace kolvan::server::profiles {

namespace {

constexpr std::size_t kInputSize = std::size_t{128} * 1024;
constexpr int kGzipFormat = 16 + MAX_WBITS;  // MAX_WBITS alone would be zlib's own format

}  // namespace

struct GunzipStream::Stream {
    Stream() {
        // Its other failures are wrong arguments and a library of another version.
        if (::inflateInit2(&state, kGzipFormat) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { (void)::inflateEnd(&state); /* complains of misuse only */ }

    z_stream state{};
};

GunzipStream::GunzipStream(ByteSource bytes, std::uint64_t mostBytes)
    : source(std::move(bytes)),
      most(mostBytes),
      input(kInputSize),
      stream(std::make_unique<Stream>()) {}

GunzipStream::~GunzipStream() = default;

std::size_t GunzipStream::read(char* buffer, std::size_t size) {
    z_stream& state = stream->state;
    const auto room =
        static_cast<uInt>(std::min<std::size_t>(size, std::numeric_limits<uInt>::max()));
    state.next_out = reinterpret_cast<Bytef*>(buffer);
    state.avail_out = room;
    while (!ended && state.avail_out == room) {
        if (state.avail_in == 0 && !refill()) {
            throw UnreadableProfile("The profile ends too early: its file is not whole.");
        }
        const int result = ::inflate(&state, Z_NO_FLUSH);
        if (result == Z_STREAM_END) {
            // A gzip file may consist of several, one behind the other.
            ended = state.avail_in == 0 && !refill();
            if (!ended) {
                (void)::inflateReset(&state);  // complains of misuse only
            }
        } else if (result == Z_MEM_ERROR) {
            throw std::bad_alloc();
        } else if (result != Z_OK && result != Z_BUF_ERROR) {
            throw UnreadableProfile(produced == 0 && state.avail_out == room
                                        ? "This is no profile: it is not compressed by gzip."
                                        : "The profile is damaged: it cannot be unpacked.");
        }
    }
    const std::size_t count = room - state.avail_out;
    produced += count;
    if (produced > most) {
        throw UnreadableProfile("The profile is too large: unpacked, it has more than " +
                                std::to_string(most) + " bytes.");
    }
    return count;
}

/// @return false at the end of the source
bool GunzipStream::refill() {
    const std::size_t count = source(input.data(), input.size());
    stream->state.next_in = reinterpret_cast<const Bytef*>(input.data());
    stream->state.avail_in = static_cast<uInt>(count);
    return count > 0;
}

}  // namespace kolvan::server::profiles
