#include "tests/soak/RecordChecker.h"

#include <cstring>

namespace kolvan::test::soak {

void RecordStream::add(std::string_view bytes) {
    received += bytes.size();
    if (!firstProblem.empty()) {
        return;
    }
    pending += bytes;
    std::size_t taken = 0;
    RecordHead head;
    while (firstProblem.empty() && pending.size() - taken >= sizeof(head)) {
        std::memcpy(&head, pending.data() + taken, sizeof(head));
        const std::string place = "record " + std::to_string(nextNumber);
        if (complete) {
            firstProblem = place + " follows the last one";
        } else if (head.stream != stream) {
            firstProblem = place + " belongs to another stream or is none";
        } else if (head.number != nextNumber) {
            firstProblem = place + " is number " + std::to_string(head.number);
        } else if (pending.size() - taken - sizeof(head) < head.length) {
            break;
        } else if (head.checksum != checksumOf(head, pending.data() + taken + sizeof(head))) {
            firstProblem = place + " has a wrong checksum";
        } else {
            taken += sizeof(head) + head.length;
            complete = head.isLast != 0;
            ++nextNumber;
        }
    }
    pending.erase(0, taken);
}

std::string RecordStream::problem() const {
    if (!firstProblem.empty()) {
        return firstProblem;
    }
    if (!pending.empty() || !complete) {
        return "it ends within or before record " + std::to_string(nextNumber);
    }
    return {};
}

void RecordChecker::expect(const std::string& id, std::uint64_t seed) {
    const std::lock_guard lock(mutex);
    // The producer numbers its channels in the same order.
    std::uint64_t part = 0;
    for (const Channel channel : kChannels) {
        streams.try_emplace({id, channel}, streamOf(seed, part++));
    }
}

void RecordChecker::add(const OutputChunk& chunk) {
    const std::lock_guard lock(mutex);
    received += chunk.text.size();
    const auto stream = streams.find({chunk.id, chunk.channel});
    if (stream == streams.end()) {
        strangers.push_back("output of '" + chunk.id + "', which nobody has started");
        return;
    }
    stream->second.add(chunk.text);
}

std::vector<std::string> RecordChecker::problems() const {
    const std::lock_guard lock(mutex);
    std::vector<std::string> found = strangers;
    for (const auto& [place, stream] : streams) {
        if (const std::string problem = stream.problem(); !problem.empty()) {
            found.push_back(place.first + " " + std::string(channelName(place.second)) + ": " +
                            problem);
        }
    }
    return found;
}

std::uint64_t RecordChecker::bytes() const {
    const std::lock_guard lock(mutex);
    return received;
}

}  // namespace kolvan::test::soak
