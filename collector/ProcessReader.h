#pragma once

#include "basekit2/process/IPipeReaderCallback.h"
#include "basekit2/process/IProcess.h"

#include <cstdint>
#include <functional>
#include <string>

namespace cagnt1::operations {

/// Hands every chunk that is read from one of the collector's pipes to one receiver.
class ProcessReader : public basekit2::process::IPipeReaderCallback {
public:
    /// @param receiver gets each chunk as one text; an empty one drops the output
    explicit ProcessReader(std::function<void(const std::string&)> receiver);

    const std::string& get_type() const override;
    basekit2::result_t onData(const char* data, std::int32_t length) override;

    /// Connects this reader to `process`, which has not been started.
    /// @return the facility's result
    virtual basekit2::result_t attach(basekit2::process::IProcess& process) = 0;

private:
    std::function<void(const std::string&)> callback;

public:
    /// Whether the reader has been connected. The caller of `attach` sets it.
    bool attached = false;
};

}  // namespace cagnt1::operations
