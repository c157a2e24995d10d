// The input is an ELF file whose addresses are to be named; or, where it is none, a mangled name.
#include "companions/demangle/Demangle.h"
#include "companions/profiler/symbols/Symbolizer.h"
#include "tests/fuzz/Fuzz.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::profiler;

constexpr std::size_t kPlaces = 64;  // of each segment

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    const std::vector<std::uint8_t> bytes(data, data + size);  // aligned, as mapped files are
    // No path from the root: no separate file is looked for.
    const auto object = ElfObject::fromMemory(std::as_bytes(std::span(bytes)), "mapped");
    if (!object) {
        const std::string name = upToNul({reinterpret_cast<const char*>(data), size});
        require(name.empty() || !kolvan::demangle(name).empty(), "a name stays one");
        return 0;
    }
    Symbolizer symbolizer(/*withSourceLines=*/true);
    for (const ElfObject::Segment& segment : object->segments()) {
        for (std::size_t place = 0; place < kPlaces; ++place) {
            const std::uint64_t address = segment.address + segment.fileSize / kPlaces * place;
            for (const NamedCall& call : symbolizer.nameInObject(object, address)) {
                require(call.name.empty() == call.systemName.empty(),
                        "a function has both its names or none");
            }
        }
    }
    return 0;
}
