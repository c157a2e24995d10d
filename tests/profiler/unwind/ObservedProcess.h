#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/base/Registers.h"
#include "companions/profiler/objects/ObjectStore.h"
#include "companions/profiler/unwind/AddressSpace.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// A child that is looked at from outside. It is killed at the end.
class ObservedProcess {
public:
    /// @param command full path of the program, and its arguments
    explicit ObservedProcess(const std::vector<std::string>& command);
    ~ObservedProcess();

    ObservedProcess(const ObservedProcess&) = delete;
    ObservedProcess& operator=(const ObservedProcess&) = delete;

    pid_t id() const { return child; }

    /// Reads so many words that the child writes.
    /// @throws std::runtime_error when it ends before
    std::vector<std::uint64_t> readWords(std::size_t count);

    /// The code that it has mapped now.
    profiler::AddressSpace addressSpace(profiler::ObjectStore& store) const;

    /// Where the mapping ends that `address` lies in. @throws std::runtime_error when it lies in
    /// none
    std::uint64_t endOfMapping(std::uint64_t address) const;

    /// Its memory from `begin` to `end`.
    std::vector<std::byte> memory(std::uint64_t begin, std::uint64_t end) const;

private:
    profiler::FileDescriptor input;
    profiler::FileDescriptor output;
    pid_t child = -1;
};

/// What the fixture says about itself.
struct ReportedStack {
    explicit ReportedStack(ObservedProcess& process);

    profiler::Registers registers;
    std::vector<std::uint64_t> addresses;  // by the C library; the first is near `instruction()`
};

/// The registers of a child that is traced and stopped.
profiler::Registers readRegisters(pid_t child);

}  // namespace kolvan::test
