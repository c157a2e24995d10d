#pragma once

// The numbered, checksummed records that a producer writes and the checker reads. The producer is a
// program of its own that knows nothing else of this project, so that this header needs nothing
// but the C++ library.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace kolvan::test::soak {

/// Numbers that look random and come again with the same seed, the same with every library.
class Randomness {
public:
    explicit Randomness(std::uint64_t seed) : state(seed) {}

    std::uint64_t next() {
        state += 0x9E3779B97F4A7C15U;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
        return mixed ^ (mixed >> 31U);
    }

    /// A number from 0 to `bound` - 1.
    std::uint64_t below(std::uint64_t bound) { return next() % bound; }

    bool oneIn(std::uint64_t count) { return below(count) == 0; }

private:
    std::uint64_t state;
};

/// What stands before the bytes of a record. It travels as it lies in memory.
struct RecordHead {
    std::uint64_t stream = 0;    ///< tells the streams of one test from each other
    std::uint64_t number = 0;    ///< place in the stream, from 0
    std::uint64_t length = 0;    ///< number of bytes that follow the head
    std::uint64_t isLast = 0;    ///< 1 for the record that ends the stream, otherwise 0
    std::uint64_t checksum = 0;  ///< of everything above and of the bytes
};

/// Name of a stream: of one channel of the run, or of one trace file, that was given this seed.
inline std::uint64_t streamOf(std::uint64_t seed, std::uint64_t part) {
    return Randomness(seed ^ Randomness(part).next()).next();
}

/// Checksum of a record, whose head carries another one or none.
inline std::uint64_t checksumOf(const RecordHead& head, const char* bytes) {
    std::uint64_t sum = 0xCBF29CE484222325U;
    const auto add = [&sum](std::uint64_t word) {
        sum = (sum ^ word) * 0x100000001B3U;
        sum ^= sum >> 29U;
    };
    add(head.stream);
    add(head.number);
    add(head.length);
    add(head.isLast);
    for (std::uint64_t i = 0; i < head.length; i += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i, std::min<std::uint64_t>(sizeof(word), head.length - i));
        add(word);
    }
    return sum;
}

/// Appends a record whose bytes are all that its stream and number make them.
inline void appendRecord(std::string& text, std::uint64_t stream, std::uint64_t number,
                         std::uint64_t length, bool isLast) {
    RecordHead head{stream, number, length, isLast ? 1U : 0U, 0};
    const std::size_t begin = text.size();
    text.resize(begin + sizeof(head) + length);
    char* const bytes = text.data() + begin + sizeof(head);
    Randomness content(stream + number);
    for (std::uint64_t i = 0; i < length; i += sizeof(std::uint64_t)) {
        const std::uint64_t word = content.next();
        std::memcpy(bytes + i, &word, std::min<std::uint64_t>(sizeof(word), length - i));
    }
    head.checksum = checksumOf(head, bytes);
    std::memcpy(text.data() + begin, &head, sizeof(head));
}

}  // namespace kolvan::test::soak
