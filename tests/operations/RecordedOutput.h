#pragma once

#include "operations/ICommandRunner.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace cagnt1::operations {

/// Keeps what an operation reports. It must outlive the operation.
class RecordedOutput {
public:
    OperationMessenger messenger() {
        return {appender(feedbackText), appender(stdoutText), appender(stderrText)};
    }

    std::string feedback() const { return copyOf(feedbackText); }
    std::string standardOutput() const { return copyOf(stdoutText); }
    std::string standardError() const { return copyOf(stderrText); }

    /// Blocks until the standard output contains `text`.
    /// @return false when that takes unreasonably long
    bool waitForOutput(const std::string& text) const {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60),
                                [&] { return stdoutText.find(text) != std::string::npos; });
    }

private:
    std::function<void(const std::string&)> appender(std::string& text) {
        return [this, &text](const std::string& chunk) {
            const std::lock_guard<std::mutex> lock(mutex);
            text += chunk;
            changed.notify_all();
        };
    }

    std::string copyOf(const std::string& text) const {
        const std::lock_guard<std::mutex> lock(mutex);
        return text;
    }

    mutable std::mutex mutex;  // guards the texts
    mutable std::condition_variable changed;
    std::string feedbackText;
    std::string stdoutText;
    std::string stderrText;
};

}  // namespace cagnt1::operations
