#include "companions/profiler/CollectionEnd.h"

namespace kolvan::profiler {

EndWords wordsOf(CollectionEnd end) {
    switch (end) {
        case CollectionEnd::Duration:
            return {"duration", "the duration is over"};
        case CollectionEnd::TargetEnded:
            return {"target-ended", "the target has ended"};
        case CollectionEnd::Stopped:
            return {"stopped", "stopped by a command"};
        case CollectionEnd::Cancelled:
            return {"cancelled", "cancelled by a command"};
        case CollectionEnd::Terminated:
            return {"terminated", "terminated by a signal"};
        case CollectionEnd::Interrupted:
            return {"interrupted", "interrupted"};
        case CollectionEnd::None:
            break;
    }
    return {"running", "running"};
}

ExitCode exitCodeOf(CollectionEnd end) {
    const bool wanted = end == CollectionEnd::Duration || end == CollectionEnd::TargetEnded ||
                        end == CollectionEnd::Stopped;
    return wanted ? ExitCode::Whole : ExitCode::Cancelled;
}

}  // namespace kolvan::profiler
