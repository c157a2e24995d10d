#include "companions/server/accounts/RefusalLog.h"

#include <string>
#include <utility>

namespace kolvan::server {

void RefusalLog::add(const AuditLine& line) {
    std::uint64_t missing = 0;
    {
        const auto now = clock.steady();
        const std::lock_guard lock(mutex);
        if (now - minuteBegan >= std::chrono::minutes(1)) {
            minuteBegan = now;
            written = 0;
        }
        if (written == kLinesPerMinute) {
            ++leftOut;
            return;
        }
        ++written;
        missing = std::exchange(leftOut, 0);
    }
    if (missing != 0) {
        audit.append({0, {}, "", "", "refusals.leftOut", "", std::to_string(missing)});
    }
    audit.append(line);
}

}  // namespace kolvan::server
