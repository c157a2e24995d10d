#pragma once

#include "companions/profiler/objects/ElfObject.h"
#include "companions/profiler/symbols/KernelSymbols.h"
#include "companions/profiler/symbols/PerfMap.h"
#include "companions/profiler/symbols/SourceLines.h"
#include "companions/profiler/symbols/SymbolIndex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// A function at an address.
struct NamedCall {
    std::string name;        ///< demangled
    std::string systemName;  ///< as the symbol table has it
    std::string file;        ///< source file; empty when it is not known
    std::uint32_t line = 0;  ///< 0 when it is not known
};

/// Names addresses. What it needs of an object is read when the object is first asked for, and
/// kept. One thread at a time.
class Symbolizer {
public:
    /// @param withSourceLines whether to name lines of the source and inlined functions too. It
    /// takes
    ///     memory in the order of the debug information's size.
    explicit Symbolizer(bool withSourceLines) : sourceLines(withSourceLines) {}

    /// @param address as the object itself counts
    /// @return the function; several, innermost first, where functions are inlined; empty where the
    ///     address has no name
    std::vector<NamedCall> nameInObject(const std::shared_ptr<const ElfObject>& object,
                                        std::uint64_t address);

    /// An address in the kernel.
    std::vector<NamedCall> nameInKernel(std::uint64_t address);

    /// An address of a process outside of any object.
    std::vector<NamedCall> nameInProcess(pid_t process, std::uint64_t address);

    /// Looks for what the just-in-time compiler of a process has written, so that it can be read
    /// after the process has ended.
    void refreshProcess(pid_t process);

    /// A process of that number executes another program: what its compiler said is void.
    void forgetProcess(pid_t process);

private:
    struct KnownObject {
        explicit KnownObject(const std::shared_ptr<const ElfObject>& object) : index(object) {}

        SymbolIndex index;                   // keeps the object alive, whose address is the key
        std::unique_ptr<SourceLines> lines;  // null when they are not wanted
    };

    KnownObject& knownObject(const std::shared_ptr<const ElfObject>& object);

    const bool sourceLines;
    std::map<const ElfObject*, std::unique_ptr<KnownObject>> objects;
    std::optional<KernelSymbols> kernel;
    std::map<pid_t, PerfMap> processes;
};

}  // namespace kolvan::profiler
