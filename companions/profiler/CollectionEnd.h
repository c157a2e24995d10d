#pragma once

#include "companions/profiler/base/ExitCode.h"

namespace kolvan::profiler {

/// Why a collection ends; `None` while it runs.
enum class CollectionEnd {
    None,
    Duration,
    TargetEnded,
    Stopped,
    Cancelled,
    Terminated,
    Interrupted
};

/// A reason in words: for programs and for people.
struct EndWords {
    const char* word;
    const char* text;
};

EndWords wordsOf(CollectionEnd end);

ExitCode exitCodeOf(CollectionEnd end);

}  // namespace kolvan::profiler
