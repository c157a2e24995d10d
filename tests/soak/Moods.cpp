#include "tests/soak/Moods.h"

#include <chrono>
#include <string>
#include <thread>

namespace kolvan::test::soak {

namespace {

// Messages with output until the mood changes.
constexpr std::size_t kMoodLength = 20;

constexpr std::uint64_t kSlowestMilliseconds = 60;

// The others may have nothing to send: whoever is treated unfairly has its turn then.
constexpr std::chrono::milliseconds kLongestUnfairness{300};
constexpr std::size_t kOthersFirst = 10;

}  // namespace

std::optional<std::vector<AgentMessage>> Moods::operator()(const AgentMessage& message) {
    if (!message.parameters.contains("size")) {
        return std::nullopt;
    }
    std::unique_lock lock(mutex);
    const std::size_t place = messages++;
    changed.notify_all();
    const std::size_t round = place / kMoodLength;
    if (round % 3 == 1) {
        const std::chrono::milliseconds time(random.below(kSlowestMilliseconds));
        lock.unlock();
        std::this_thread::sleep_for(time);
    } else if (round % 3 == 2) {
        const std::string disliked =
            "collector:" + std::string(channelName(kChannels[round / 3 % kChannels.size()]));
        if (message.type == disliked) {
            changed.wait_for(lock, kLongestUnfairness,
                             [&] { return messages > place + kOthersFirst; });
        }
    }
    return std::nullopt;
}

}  // namespace kolvan::test::soak
