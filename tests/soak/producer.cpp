// A collector that writes numbered, checksummed records (tests/soak/Records.h) as fast, as bursty
// and as large as collectors do at their worst.
//
//   produce SEED BYTES    writes at least so many bytes on each of the three channels at once, each
//                         from a thread of its own
//   traces SEED COUNT     writes so many trace files into the directory that "-r" names, each of a
//                         record or a few
//
// An "execute" run reads its arguments, a collection the lines of its option file. "--version"
// names build 1.

#include "tests/soak/Records.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using kolvan::test::soak::appendRecord;
using kolvan::test::soak::Randomness;
using kolvan::test::soak::streamOf;

// A run that nobody ends must not outlive its test for long.
constexpr unsigned kLifeSeconds = 3600;

constexpr int kUsageError = 64;

constexpr std::uint64_t kLargestPiece = 4U << 20U;
constexpr std::uint64_t kLongestBurst = 64;
constexpr std::uint64_t kLongestRecordOfABurst = 2000;
constexpr std::uint64_t kLongestStallMilliseconds = 40;

void writeAll(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            std::exit(kUsageError);
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

/// Writes one channel's records: a burst of small ones, each by a call of its own or all by one, or
/// a single huge one, and now and then nothing for a while.
class Channel {
public:
    Channel(int descriptor, std::uint64_t seed, std::uint64_t part)
        : descriptor(descriptor), stream(streamOf(seed, part)), random(stream) {}

    void produce(std::uint64_t bytes) {
        while (written < bytes) {
            if (random.oneIn(64)) {
                writeRecord(random.below(kLargestPiece));
            } else {
                writeBurst(random.below(kLongestBurst), random.oneIn(2));
            }
            if (!random.oneIn(4)) {
                std::this_thread::sleep_for(
                    std::chrono::milliseconds(random.below(kLongestStallMilliseconds)));
            }
        }
        appendRecord(gathered, stream, number, random.below(100), /*isLast=*/true);
        writeGathered();
    }

private:
    void writeRecord(std::uint64_t length) {
        appendRecord(gathered, stream, number++, length, /*isLast=*/false);
        writeGathered();
    }

    void writeBurst(std::uint64_t count, bool byOneCall) {
        for (std::uint64_t i = 0; i < count; ++i) {
            appendRecord(gathered, stream, number++, random.below(kLongestRecordOfABurst),
                         /*isLast=*/false);
            if (!byOneCall) {
                writeGathered();
            }
        }
        writeGathered();
    }

    void writeGathered() {
        writeAll(descriptor, gathered);
        written += gathered.size();
        gathered.clear();
    }

    const int descriptor;
    const std::uint64_t stream;
    Randomness random;
    std::string gathered;
    std::uint64_t number = 0;
    std::uint64_t written = 0;
};

void produce(std::uint64_t seed, std::uint64_t bytes, int feedbackDescriptor) {
    const std::array<int, 3> descriptors{feedbackDescriptor, STDOUT_FILENO, STDERR_FILENO};
    std::vector<std::thread> channels;
    for (std::size_t part = 0; part < descriptors.size(); ++part) {
        channels.emplace_back([descriptor = descriptors[part], seed, part, bytes] {
            Channel(descriptor, seed, part).produce(bytes);
        });
    }
    for (std::thread& channel : channels) {
        channel.join();
    }
}

void writeTraces(std::uint64_t seed, std::uint64_t count, const fs::path& resultDirectory) {
    fs::create_directory(resultDirectory / "data");
    for (std::uint64_t part = 0; part < count; ++part) {
        const std::uint64_t stream = streamOf(seed, part);
        Randomness random(stream);
        std::string text;
        appendRecord(text, stream, 0, random.below(20000), /*isLast=*/false);
        appendRecord(text, stream, 1, random.below(20000), /*isLast=*/true);
        std::ofstream file(resultDirectory / "data" / std::to_string(part), std::ios::binary);
        file << text;
        if (!file.flush()) {
            throw std::runtime_error("cannot write a trace");
        }
    }
}

std::vector<std::string> linesOf(const fs::path& file) {
    std::ifstream stream(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The word after another one.
std::string after(const std::vector<std::string>& words, const std::string& name) {
    const auto found = std::find(words.begin(), words.end(), name);
    if (found == words.end() || found + 1 == words.end()) {
        throw std::invalid_argument("no " + name);
    }
    return found[1];
}

void run(const std::vector<std::string>& arguments) {
    if (arguments == std::vector<std::string>{"--version"}) {
        writeAll(STDOUT_FILENO, "Producer\nbuild 1\n");
        return;
    }
    const std::vector<std::string> words =
        arguments.at(0) == "--option-file" ? linesOf(after(arguments, "--option-file")) : arguments;
    const std::uint64_t seed = std::stoull(words.at(1));
    const std::uint64_t amount = std::stoull(words.at(2));
    if (words.at(0) == "produce") {
        produce(seed, amount, std::stoi(after(arguments, "--ui-output-fd")));
    } else if (words.at(0) == "traces") {
        writeTraces(seed, amount, after(words, "-r"));
    } else {
        throw std::invalid_argument("unknown: " + words.at(0));
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    ::alarm(kLifeSeconds);
    try {
        run({argv + 1, argv + argc});
        return 0;
    } catch (const std::exception& error) {
        writeAll(STDERR_FILENO, std::string("producer: ") + error.what() + "\n");
        return kUsageError;
    }
}
