#pragma once

#include "tests/support/standin/ArrivedMessage.h"
#include "tests/support/standin/OutputLog.h"
#include "tests/support/standin/UploadStore.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kolvan::test {

/// A message that has arrived.
struct ReceivedMessage {
    std::size_t index = 0;  ///< place in the transcript, in order of arrival
    std::chrono::steady_clock::time_point arrival;
    bool tokenAccepted = true;
    AgentMessage message;          ///< without its output
    std::uint64_t outputSize = 0;  ///< bytes that came with it, decoded
};

/// A request for an archive.
struct PackageRequest {
    std::string name;  ///< as the agent sent it
    bool found = false;
};

using Transcript = std::vector<ReceivedMessage>;

/// Everything that a server has recorded. A plain value; it has no lock of its own.
struct ServerRecords {
    explicit ServerRecords(bool keepOutput) : operations(keepOutput) {}

    /// Returns how many messages of the type have arrived with the right token.
    std::size_t count(const std::string& type) const;

    Transcript transcript;
    OutputLog operations;
    std::vector<UploadRecord> uploads;
    std::vector<PackageRequest> packageRequests;
    std::vector<std::string> protocolErrors;
};

}  // namespace kolvan::test
