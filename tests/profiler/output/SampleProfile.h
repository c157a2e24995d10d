#pragma once

#include "companions/profiler/output/Profile.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kolvan::profiler::test {

/// Builds a profile from names, for tests. Every name is a function of its own at an address of its
/// own, in the module that was named last.
class ProfileBuilder {
public:
    ProfileBuilder();

    /// Locations that follow belong to this module.
    ProfileBuilder& module(const std::string& path, const std::string& buildId = "");

    /// Adds a location with the calls `names`, the innermost first; none for an address without a
    /// name. @return its position
    std::uint32_t location(const std::vector<std::string>& names);

    /// Adds a thread, which samples that follow belong to.
    ProfileBuilder& thread(pid_t process, pid_t id, const std::string& name,
                           const std::string& processName);

    /// Adds a sample of `milliseconds`, as many as its count. `stack` begins with the root.
    ProfileBuilder& sample(const std::vector<std::uint32_t>& stack, std::uint64_t milliseconds,
                           std::uint32_t tenth = 0, bool complete = true);

    Profile profile;
};

/// A small profile with something of everything: two threads of two processes, inlined calls, a
/// recursion, the kernel, an address without a name, a stack that does not reach its root.
Profile sampleProfile();

/// A coverage that fits `sampleProfile()`, with one limit.
Coverage sampleCoverage();

}  // namespace kolvan::profiler::test
