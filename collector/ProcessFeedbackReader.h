#pragma once

#include "collector/ProcessReader.h"

#include <string>
#include <vector>

namespace cagnt1::operations {

/// Reader of the collector's feedback channel: a pipe of its own, on which the collector writes
/// its progress as XML and whose descriptor it is told on its command line.
class ProcessFeedbackReader : public ProcessReader {
public:
    explicit ProcessFeedbackReader(std::function<void(const std::string&)> callback);

    /// Opens the pipe. On success the descriptor's option joins `extraArguments`.
    basekit2::result_t attach(basekit2::process::IProcess& process) override;

    /// The options by which the collector is told of the channel.
    std::vector<std::string> extraArguments;
};

}  // namespace cagnt1::operations
