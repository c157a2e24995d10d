#include "companions/profiler/sampling/LocationTable.h"

#include "companions/profiler/objects/ElfObject.h"
#include "companions/profiler/symbols/Symbolizer.h"

#include <limits>
#include <utility>

namespace kolvan::profiler {

namespace {

constexpr std::uint32_t kKernelModule = 0;
constexpr std::uint32_t kAnonymousModule = 1;

/// What a module covers, by the segments that hold its code.
Profile::Module describe(const ElfObject& object) {
    Profile::Module module;
    module.path = object.path();
    module.buildId = object.buildId();
    module.begin = std::numeric_limits<std::uint64_t>::max();
    for (const ElfObject::Segment& segment : object.segments()) {
        if (segment.executable && segment.address < module.begin) {
            module.begin = segment.address;
            module.fileOffset = segment.fileOffset;
        }
        if (segment.executable) {
            module.end = std::max(module.end, segment.address + segment.fileSize);
        }
    }
    module.begin = std::min(module.begin, module.end);
    return module;
}

}  // namespace

LocationTable::LocationTable(Profile& profileToFill, Symbolizer& symbolizerToAsk)
    : profile(profileToFill), symbolizer(symbolizerToAsk) {
    Profile::Module kernel;
    kernel.path = "[kernel]";
    kernel.begin = std::uint64_t{1} << 63U;
    kernel.end = std::numeric_limits<std::uint64_t>::max();
    (void)addModule(std::move(kernel), nullptr);
    Profile::Module anonymous;
    anonymous.path = "[anon]";
    anonymous.end = std::uint64_t{1} << 47U;  // where the addresses of programs end
    (void)addModule(std::move(anonymous), nullptr);
}

std::uint32_t LocationTable::inKernel(std::uint64_t address) {
    return numberOf({kKernelModule, address, 0});
}

std::uint32_t LocationTable::inProcess(pid_t process, const AddressSpace& space,
                                       std::uint64_t address) {
    const AddressSpace::Mapping* const mapping = space.find(address);
    if (mapping != nullptr) {
        if (const auto inObject = mapping->addressInObject(address)) {
            return numberOf({moduleOf(*mapping), *inObject, 0});
        }
    }
    const std::size_t before = profile.locations.size();
    const std::uint32_t number = numberOf({kAnonymousModule, address, process});
    if (profile.locations.size() > before) {
        // Whoever has made this code may have named it, which can be read as long as he lives.
        symbolizer.refreshProcess(process);
    }
    return number;
}

std::uint32_t LocationTable::numberOf(const Key& key) {
    const auto next = static_cast<std::uint32_t>(profile.locations.size());
    const auto [entry, isNew] = numbers.emplace(key, next);
    if (isNew) {
        profile.locations.push_back({std::get<0>(key), std::get<1>(key), {}});
        processes.push_back(std::get<2>(key));
    }
    return entry->second;
}

std::uint32_t LocationTable::moduleOf(const AddressSpace::Mapping& mapping) {
    const auto known = modules.find(mapping.object.get());
    if (known != modules.end()) {
        return known->second;
    }
    const std::uint32_t number = addModule(describe(*mapping.object), mapping.object);
    modules.emplace(mapping.object.get(), number);
    return number;
}

std::uint32_t LocationTable::addModule(Profile::Module module,
                                       std::shared_ptr<const ElfObject> object) {
    profile.modules.push_back(std::move(module));
    objects.push_back(std::move(object));
    return static_cast<std::uint32_t>(profile.modules.size() - 1);
}

void LocationTable::name() {
    for (; named < profile.locations.size(); ++named) {
        nameLocation(named);
    }
}

void LocationTable::nameLocation(std::size_t number) {
    Profile::Location& location = profile.locations[number];
    const auto names = location.module == kKernelModule ? symbolizer.nameInKernel(location.address)
                       : location.module == kAnonymousModule
                           ? symbolizer.nameInProcess(processes[number], location.address)
                           : symbolizer.nameInObject(objects[location.module], location.address);
    for (const auto& each : names) {
        location.lines.push_back({functionOf(each.name, each.systemName, each.file), each.line});
    }
}

std::uint32_t LocationTable::functionOf(const std::string& name, const std::string& systemName,
                                        const std::string& file) {
    const auto next = static_cast<std::uint32_t>(profile.functions.size());
    const auto [entry, isNew] = functions.emplace(std::tuple(systemName, file), next);
    if (isNew) {
        profile.functions.push_back({name, systemName, file});
    }
    return entry->second;
}

}  // namespace kolvan::profiler
