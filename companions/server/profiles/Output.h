#pragma once

#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kolvan::server::profiles {

/// Takes what a view writes, in pieces, in their order. What it throws ends the view.
using Sink = std::function<void(std::string_view piece)>;

/// A view would be larger than anything that reads it. Its text is a sentence for the user.
struct ViewTooLarge : std::length_error {
    using std::length_error::length_error;
};

/// Gathers the text of a view, so that the sink gets pieces of some size; also a stream for
/// RapidJSON's writer. Few samples with long stacks and names can become any amount of text, which
/// is why there is a limit.
class Output {
public:
    using Ch = char;  // RapidJSON asks for the name

    static constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 30;

    explicit Output(const Sink& pieceSink) : sink(pieceSink) { buffer.reserve(kPieceSize); }

    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// @throws ViewTooLarge, and what the sink throws
    void write(std::string_view text) {
        buffer += text;
        if (buffer.size() >= kPieceSize) {
            hand();
        }
    }

    void Put(char character) {
        buffer += character;
        if (buffer.size() >= kPieceSize) {
            hand();
        }
    }

    void Flush() {}

    /// Hands over the rest; has to be called at the end.
    void finish() { hand(); }

private:
    static constexpr std::size_t kPieceSize = std::size_t{64} * 1024;

    void hand() {
        written += buffer.size();
        if (written > kMostBytes) {
            throw ViewTooLarge("This view of the profile would be larger than 1 GiB.");
        }
        sink(buffer);
        buffer.clear();
    }

    const Sink& sink;
    std::string buffer;
    std::uint64_t written = 0;
};

/// Writes JSON to an output.
using JsonWriter = rapidjson::Writer<Output>;

inline void writeText(JsonWriter& writer, const char* key, std::string_view text) {
    writer.Key(key);
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

inline void writeNumber(JsonWriter& writer, const char* key, std::uint64_t number) {
    writer.Key(key);
    writer.Uint64(number);
}

}  // namespace kolvan::server::profiles
