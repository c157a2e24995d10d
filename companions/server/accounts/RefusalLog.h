#pragma once

#include "companions/server/base/Clock.h"
#include "companions/server/store/Store.h"

#include <chrono>
#include <cstdint>
#include <mutex>

namespace kolvan::server {

/// Writes into the audit what strangers were refused: some lines a minute, so that they cannot fill
/// the disk. What is left out is counted, and the next line that is written says how many they
/// were.
///
/// Threads: any member from any thread.
class RefusalLog {
public:
    static constexpr unsigned kLinesPerMinute = 60;

    /// @param ownAudit, ownClock must live as long as this
    RefusalLog(AuditStore& ownAudit, const Clock& ownClock) : audit(ownAudit), clock(ownClock) {}

    /// Writes a line, or counts it. @throws StoreError
    void add(const AuditLine& line);

private:
    AuditStore& audit;
    const Clock& clock;

    std::mutex mutex;  // guards minuteBegan, written and leftOut
    std::chrono::steady_clock::time_point minuteBegan;
    unsigned written = 0;  // in this minute
    std::uint64_t leftOut = 0;
};

}  // namespace kolvan::server
