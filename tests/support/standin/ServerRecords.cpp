#include "tests/support/standin/ServerRecords.h"

#include <algorithm>

namespace kolvan::test {

std::size_t ServerRecords::count(const std::string& type) const {
    const auto matches = [&](const ReceivedMessage& received) {
        return received.tokenAccepted && received.message.type == type;
    };
    return static_cast<std::size_t>(std::count_if(transcript.begin(), transcript.end(), matches));
}

}  // namespace kolvan::test
