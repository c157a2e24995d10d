#include "companions/profiler/symbols/Symbolizer.h"

#include "companions/demangle/Demangle.h"

#include <utility>

namespace kolvan::profiler {

namespace {

/// A list of the one function of that name; empty where there is none.
std::vector<NamedCall> callsOf(std::optional<std::string_view> systemName) {
    std::vector<NamedCall> calls;
    if (systemName) {
        NamedCall& call = calls.emplace_back();
        call.systemName = *systemName;
        call.name = demangle(call.systemName);
    }
    return calls;
}

}  // namespace

std::vector<NamedCall> Symbolizer::nameInObject(const std::shared_ptr<const ElfObject>& object,
                                                std::uint64_t address) {
    KnownObject& known = knownObject(object);
    const auto match = known.index.find(address);
    std::vector<NamedCall> calls;
    if (known.lines) {
        for (SourceLines::Call& call : known.lines->find(address)) {
            calls.push_back({.name = demangle(call.systemName),
                             .systemName = std::move(call.systemName),
                             .file = std::move(call.file),
                             .line = call.line});
        }
    }
    if (calls.empty()) {
        return callsOf(match ? std::optional<std::string_view>(match->name) : std::nullopt);
    }
    if (match) {
        // It tells the parts of a function apart, and has mangled names where compilers leave them
        // out of the debug information.
        calls.back().systemName = match->name;
        calls.back().name = demangle(match->name);
    }
    return calls;
}

std::vector<NamedCall> Symbolizer::nameInKernel(std::uint64_t address) {
    if (!kernel) {
        kernel.emplace();
    }
    return callsOf(kernel->find(address));
}

std::vector<NamedCall> Symbolizer::nameInProcess(pid_t process, std::uint64_t address) {
    PerfMap& map = processes.try_emplace(process, process).first->second;
    auto name = map.find(address);
    if (!name) {
        map.refresh();
        name = map.find(address);
    }
    return callsOf(name);
}

void Symbolizer::refreshProcess(pid_t process) {
    processes.try_emplace(process, process).first->second.refresh();
}

void Symbolizer::forgetProcess(pid_t process) {
    processes.erase(process);
}

Symbolizer::KnownObject& Symbolizer::knownObject(const std::shared_ptr<const ElfObject>& object) {
    auto& known = objects[object.get()];
    if (!known) {
        known = std::make_unique<KnownObject>(object);
        if (sourceLines) {
            known->lines = std::make_unique<SourceLines>(object);
        }
    }
    return *known;
}

}  // namespace kolvan::profiler
