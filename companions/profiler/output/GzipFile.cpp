#include "companions/profiler/output/GzipFile.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

// Without it, zlib's input pointer is not const.
#define ZLIB_CONST
#include <zlib.h>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
constexpr int kGzipFormat = 16 + MAX_WBITS;  // MAX_WBITS alone would be zlib's own format
constexpr int kUsualMemory = 8;

}  // namespace

struct GzipFile::Stream {
    Stream() {
        // Its other failures are wrong arguments and a library of another version.
        if (::deflateInit2(&state, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipFormat, kUsualMemory,
                           Z_DEFAULT_STRATEGY) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() {
        (void)::deflateEnd(&state); /* complains of a stream that was given up: it may be */
    }

    z_stream state{};
};

GzipFile::GzipFile(std::string path)
    : file(std::move(path)), buffer(kBufferSize), stream(std::make_unique<Stream>()) {}

GzipFile::~GzipFile() = default;

void GzipFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t count =
            std::min<std::size_t>(bytes.size(), std::numeric_limits<uInt>::max());
        compress(bytes.substr(0, count), false);
        bytes.remove_prefix(count);
    }
}

void GzipFile::close() {
    compress({}, true);
    file.close();
}

void GzipFile::compress(std::string_view bytes, bool last) {
    z_stream& state = stream->state;
    state.next_in = reinterpret_cast<const Bytef*>(bytes.data());
    state.avail_in = static_cast<uInt>(bytes.size());
    do {
        state.next_out = reinterpret_cast<Bytef*>(buffer.data());
        state.avail_out = static_cast<uInt>(buffer.size());
        // It cannot fail: its result tells of misuse, or that there was nothing to do.
        (void)::deflate(&state, last ? Z_FINISH : Z_NO_FLUSH);
        file.write({buffer.data(), buffer.size() - state.avail_out});
    } while (state.avail_out == 0);
}

}  // namespace kolvan::profiler
