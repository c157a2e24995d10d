#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <sys/types.h>

namespace kolvan::test {

/// A stop engine at work in a child of this process, which traces while this one, the parent of
/// what is traced, does something else. It is killed at the end of the object.
class EngineInChild {
public:
    /// Returns when the engine is attached.
    /// @throws std::runtime_error when it cannot be
    explicit EngineInChild(pid_t target);
    EngineInChild(const EngineInChild&) = delete;
    EngineInChild& operator=(const EngineInChild&) = delete;
    ~EngineInChild();

    /// Kills it where it is.
    void kill();

    /// Lets it finish. @return when it has
    void finish();

private:
    pid_t child = -1;
    profiler::FileDescriptor toChild;
    profiler::FileDescriptor fromChild;
};

}  // namespace kolvan::test
