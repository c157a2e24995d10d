#pragma once

#include "collector/ProcessReader.h"

#include <cstdint>
#include <functional>
#include <string>

namespace cagnt1::operations {

/// Reader of the collector's standard output or standard error.
class ProcessOutputReader : public ProcessReader {
public:
    /// @param streamNumber 1 for standard output, 2 for standard error
    ProcessOutputReader(std::function<void(const std::string&)> receiver,
                        std::int32_t streamNumber);

    basekit2::result_t attach(basekit2::process::IProcess& process) override;

private:
    std::int32_t streamNumber;
};

}  // namespace cagnt1::operations
