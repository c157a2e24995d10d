#pragma once

#include <csignal>
#include <mutex>

namespace kolvan::test {

/// Keeps the process's SIGPIPE disposition, which the HTTP library changes when a server is made.
class KeepSigpipeDisposition {
public:
    KeepSigpipeDisposition();
    ~KeepSigpipeDisposition();
    KeepSigpipeDisposition(const KeepSigpipeDisposition&) = delete;
    KeepSigpipeDisposition& operator=(const KeepSigpipeDisposition&) = delete;

private:
    const std::lock_guard<std::mutex> lock;  // one at a time: each must see the true disposition
    struct sigaction saved {};
};

/// Blocks all signals in this thread and in those that it starts meanwhile.
class BlockSignals {
public:
    BlockSignals();
    ~BlockSignals();
    BlockSignals(const BlockSignals&) = delete;
    BlockSignals& operator=(const BlockSignals&) = delete;

private:
    sigset_t saved{};
};

}  // namespace kolvan::test
