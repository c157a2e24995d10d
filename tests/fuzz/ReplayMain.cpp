// Runs a fuzzer over the files of directories: its corpus becomes a test for every compiler.
#include "tests/fuzz/Fuzz.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <unistd.h>

namespace {

// Far above what any input takes; a fuzzer that hangs dies of it, after the input's name.
constexpr unsigned kPatienceSeconds = 120;

void replay(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(stream), {}};
    std::printf("%s\n", file.c_str());
    (void)std::fflush(stdout);
    (void)::alarm(kPatienceSeconds);
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int argument = 1; argument < argc; ++argument) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[argument])) {
            replay(entry.path());
            ++count;
        }
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
