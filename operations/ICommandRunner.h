#pragma once

#include "agent/IAgent.h"

#include <string>
#include <vector>

namespace cagnt1::operations {

using OperationMessenger = IAgent::IOperations::OperationMessenger;

/// Runs the collector while its output streams to the server.
class ICommandRunner {
public:
    virtual ~ICommandRunner() = default;

    /// Runs the collector with `args` and blocks until it has ended. Its standard output, standard
    /// error and feedback go to `messenger` chunk by chunk, all of them on one other thread.
    /// @return its exit code; -1 when it could not be started, with the reason on `onStderr`
    virtual int execute(const std::vector<std::string>& args, OperationMessenger& messenger) = 0;
};

}  // namespace cagnt1::operations
