#pragma once

#include "companions/profiler/engine/Engine.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/engine/RecordedEvents.h"

#include <map>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// What the processes of the fixture's mode "tree" say of themselves.
struct ToldTree {
    std::vector<pid_t> processes;  ///< as they have begun
    std::map<pid_t, double> used;  ///< nanoseconds of processor time, up to shortly before the end
};

/// More than a process of the tree may use besides, to begin and to end.
inline constexpr double kUsedBesides = 5e6;

/// Lets the tree burn under an engine, and takes in everything up to its end.
ToldTree burnTree(profiler::Engine& engine, RecordedEvents& events, FixtureProcess& fixture);

}  // namespace kolvan::test
