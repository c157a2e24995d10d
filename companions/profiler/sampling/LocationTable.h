#pragma once

#include "companions/profiler/output/Profile.h"
#include "companions/profiler/unwind/AddressSpace.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

class Symbolizer;

/// Gives every place in code a number, the same one to the same place, in the tables of a profile,
/// and names it when it is asked to.
class LocationTable {
public:
    LocationTable(Profile& profileToFill, Symbolizer& symbolizerToAsk);

    /// The place in the kernel at `address`.
    std::uint32_t inKernel(std::uint64_t address);

    /// The place in a process at `address`; `space` tells what is mapped there. The same file in
    /// two processes is one place, code without a file is one for each process.
    std::uint32_t inProcess(pid_t process, const AddressSpace& space, std::uint64_t address);

    /// Names what has no names yet. What is new code of a compiler at run time is asked for again
    /// while its process may still tell.
    void name();

private:
    /// Module, address in it, and the process where the address means nothing to others, else 0.
    using Key = std::tuple<std::uint32_t, std::uint64_t, pid_t>;

    std::uint32_t numberOf(const Key& key);
    std::uint32_t moduleOf(const AddressSpace::Mapping& mapping);
    std::uint32_t addModule(Profile::Module module, std::shared_ptr<const ElfObject> object);
    void nameLocation(std::size_t number);
    std::uint32_t functionOf(const std::string& name, const std::string& systemName,
                             const std::string& file);

    Profile& profile;
    Symbolizer& symbolizer;
    std::map<Key, std::uint32_t> numbers;
    std::vector<pid_t> processes;  // beside the profile's locations: the process of the key
    std::vector<std::shared_ptr<const ElfObject>> objects;  // beside the profile's modules
    std::map<const ElfObject*, std::uint32_t> modules;
    std::map<std::tuple<std::string, std::string>, std::uint32_t> functions;
    std::size_t named = 0;  // locations before this one have been looked up
};

}  // namespace kolvan::profiler
