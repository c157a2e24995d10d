#pragma once

#include "basekit2/process/IProcess.h"
#include "basekit2/ref_counted.h"
#include "collector/ICollectorProcess.h"
#include "operations/ICommandRunner.h"

#include <string>
#include <vector>

namespace cagnt1::operations {

class ProcessFeedbackReader;
class ProcessOutputReader;

/// One run of the collector executable over the process facility.
///
/// Threads: `terminate()` may be called while another thread is in `wait()`; no other two members
/// may run at the same time. The messenger's callbacks are called on the facility's reading thread.
class CollectorProcess : public ICollectorProcess {
public:
    /// Prepares a run; nothing is started.
    /// @param messenger its callbacks are copied
    CollectorProcess(std::string executablePath, std::string workingDirectory,
                     const std::vector<std::string>& arguments,
                     const OperationMessenger& messenger);

    /// Neither waits for the process nor ends it.
    ~CollectorProcess() override;

    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;

    /// Starts the executable with the arguments and the options of the feedback channel. If it
    /// cannot be started, the reason goes to `onStderr` as one line.
    bool start() override;
    int wait() override;
    bool terminate() override;

private:
    void reportNotStarted(basekit2::result_t reason);

    std::string executablePath;
    std::string workingDirectory;
    std::vector<std::string> arguments;
    basekit2::ref_ptr_t<basekit2::process::IProcess> process;
    basekit2::ref_ptr_t<ProcessFeedbackReader> feedbackReader;
    basekit2::ref_ptr_t<ProcessOutputReader> stdoutReader;
    basekit2::ref_ptr_t<ProcessOutputReader> stderrReader;
};

}  // namespace cagnt1::operations
