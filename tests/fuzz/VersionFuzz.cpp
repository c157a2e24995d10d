// The input is what an installed collector prints when it is asked for its version.
#include "collector/Collector.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace {

namespace fs = std::filesystem;
using namespace kolvan::fuzz;

// An installed package whose collector prints the file beside it.
class Package {
public:
    Package() {
        const std::string program =
            directory.write("package/bin/kolvan-trcap", "#!/bin/sh\nexec cat \"$0.output\"\n");
        fs::permissions(program, fs::perms::owner_all);
    }

    std::string versionOf(const std::string& output) {
        (void)directory.write("package/bin/kolvan-trcap.output", output);
        return collector().version();
    }

private:
    cagnt1::operations::Collector& collector() {
        static cagnt1::operations::Collector installed(directory.path());
        return installed;
    }

    const kolvan::test::TemporaryDirectory directory;
};

bool isBlank(char character) {
    return std::string_view(" \t\n\v\f\r").find(character) != std::string_view::npos;
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// The number behind the last "build" that blanks and a number follow.
std::string expectedVersion(const std::string& output) {
    std::string version;
    for (std::size_t word = output.find("build"); word != std::string::npos;
         word = output.find("build", word + 1)) {
        std::size_t begin = word + 5;
        while (begin < output.size() && isBlank(output[begin])) {
            ++begin;
        }
        std::size_t end = begin;
        while (end < output.size() && isDigit(output[end])) {
            ++end;
        }
        if (begin > word + 5 && end > begin) {
            version = output.substr(begin, end - begin);
        }
    }
    return version;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    static Package package;
    const std::string output(reinterpret_cast<const char*>(data), size);
    const int descriptor = lowestFreeDescriptor();

    requireEqual(expectedVersion(output), package.versionOf(output),
                 "the last build number counts");

    require(descriptor == lowestFreeDescriptor(), "a query leaves no descriptor open");
    return 0;
}
