#include "tests/soak/RandomOperation.h"

#include "tests/support/ScriptedCollector.h"

#include <csignal>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::test::soak {

namespace {

// As the scripted collector names the channels, in the order of the server's.
constexpr std::array<const char*, 3> kWords{"fb", "out", "err"};
constexpr std::array<const char*, 3> kTypes{"collector:feedback", "collector:stdout",
                                            "collector:stderr"};

constexpr std::uint64_t kMostBytes = 200000;

std::string joined(const std::vector<std::string>& words, char separator) {
    std::string text;
    for (const std::string& word : words) {
        text += text.empty() ? word : separator + word;
    }
    return text;
}

}  // namespace

RandomOperation::RandomOperation(std::string operationId, Fault operationFault, bool isCollection,
                                 Randomness& random)
    : id(std::move(operationId)), fault(operationFault) {
    std::vector<std::string> words;
    if (isCollection) {
        words = {"-r", "result"};
        for (std::uint64_t count = random.below(4); count > 0; --count) {
            const std::string name = "trace-" + std::to_string(count);
            traces[name] = "text of " + name + " of " + id;
            words.insert(words.end(), {"trace", "data/" + name, traces[name]});
        }
    }
    const auto write = [&](std::size_t channel) {
        if (random.oneIn(3)) {
            const std::uint64_t bytes = random.below(kMostBytes);
            words.insert(words.end(), {"flood", kWords[channel], std::to_string(bytes)});
            texts[channel] += floodText(bytes);
        } else {
            const int count = static_cast<int>(1 + random.below(40));
            words.insert(words.end(), {"lines", kWords[channel], std::to_string(count), id});
            texts[channel] += numberedLines(count, id);
        }
    };
    for (std::uint64_t count = random.below(5); count > 0; --count) {
        write(random.below(kWords.size()));
    }
    // A small text of a channel of its own: the relay must be able to gather what it is to lose.
    const std::size_t hit = random.below(kWords.size());
    hitType = kTypes[hit];
    texts[hit] += id + "\n";
    words.insert(words.end(), {kWords[hit], id});

    int code = static_cast<int>(random.below(3));
    if (fault == Fault::Cancel) {
        words.emplace_back("hang");
        texts[0] += "<ready/>";
        code = 128 + SIGTERM;
    } else if (fault == Fault::Death) {
        const int number = random.oneIn(2) ? SIGKILL : SIGSEGV;
        words.insert(words.end(), {"die", std::to_string(number)});
        code = 128 + number;
    } else if (fault == Fault::Failure && random.oneIn(2)) {
        words.emplace_back("nonsense");
        texts[2] += "scripted collector: unknown: 'nonsense'\n";
        code = 64;
    } else {
        code = fault == Fault::Failure ? 255 : code;
        words.insert(words.end(), {"exit", std::to_string(code)});
    }
    outcome = "code " + std::to_string(code);
    hitType = fault == Fault::LostFinish ? "collector:finish" : hitType;
    command = isCollection ? messages::startCollection(id, joined(words, '\n'), id)
                           : messages::execute(id, joined(words, ' '));
}

std::uint64_t RandomOperation::bytes() const {
    return texts[0].size() + texts[1].size() + texts[2].size();
}

}  // namespace kolvan::test::soak
