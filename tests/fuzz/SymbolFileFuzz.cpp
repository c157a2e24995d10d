// The input is a file with symbols as somebody may upload it. Every function that it names is asked
// for.
#include "companions/server/symbols/SymbolFile.h"

#include "tests/fuzz/Fuzz.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::server::symbols;

SymbolLimits limits() {
    SymbolLimits limits;
    limits.sections = 64;
    limits.noteBytes = 1024;
    limits.symbols = 1024;
    limits.nameBytes = 1024;
    limits.named = 256;
    limits.allNameBytes = 1 << 16;
    return limits;
}

void check(const SymbolFile& file) {
    const SymbolLimits most = limits();
    require(file.buildId().size() % 2 == 0 && file.buildId().size() <= 2 * most.noteBytes,
            "a build-id is bytes in hexadecimal digits");
    require(file.size() <= most.symbols, "there are no more functions than symbols");
    std::vector<std::uint64_t> addresses;
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t address = std::uint64_t{1} << bit;
        addresses.insert(addresses.end(), {address - 1, address, address + 16});
    }
    std::sort(addresses.begin(), addresses.end());
    const std::vector<std::string> names = file.namesAt(addresses);
    require(names.size() == addresses.size(), "each address has a name or none");
    std::size_t bytes = 0;
    for (const std::string& name : names) {
        require(name.find('\0') == std::string::npos, "a name is a text");
        bytes += name.size();
    }
    require(bytes <= most.allNameBytes, "names take no more than they may");
    require(file.namesAt(addresses) == names, "the same file names the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    basekit2::UniqueFd file(::memfd_create("input", MFD_CLOEXEC));
    require(file && ::write(file.get(), data, size) == static_cast<ssize_t>(size),
            "there is memory for an input");
    try {
        check(SymbolFile(std::move(file), limits()));
    } catch (const UnreadableSymbols& error) {
        require(std::string_view(error.what()).ends_with('.'), "a refusal is a sentence");
    }
    return 0;
}
