#pragma once

#include "collector/ProcessReader.h"

#include <functional>
#include <string>
#include <vector>

namespace cagnt1::operations {

/// Reader of the collector's feedback channel: an additional pipe to which the collector writes its
/// progress as XML. The collector's command line names the pipe's descriptor.
class ProcessFeedbackReader : public ProcessReader {
public:
    explicit ProcessFeedbackReader(std::function<void(const std::string&)> receiver);

    /// Opens the pipe. On success the option that names the descriptor is added to
    /// `extraArguments`.
    basekit2::result_t attach(basekit2::process::IProcess& process) override;

    /// The options by which the collector is told of the channel.
    std::vector<std::string> extraArguments;
};

}  // namespace cagnt1::operations
