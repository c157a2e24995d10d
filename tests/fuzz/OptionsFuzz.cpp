// The input is the options text of a collection, as the server sends it. The whole way is taken:
// the facade splits the text, writes the file and starts a collector (which does nothing).
#include "operations/Operations.h"
#include "server/IServer.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/ArchiveBuilder.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;
using kolvan::test::ArchiveBuilder;
using kolvan::test::readFile;
using kolvan::test::TemporaryDirectory;
using namespace kolvan::fuzz;

// Provides a package whose collector succeeds without a word.
class QuietPackageServer : public cagnt1::IServer {
public:
    std::string sendMessages(const std::string&) override { return {}; }
    bool downloadTargetPackage(const std::string&, const std::string& path) override {
        (void)ArchiveBuilder()
            .directory("package")
            .directory("package/bin")
            .symbolicLink("package/bin/kolvan-trcap", "/bin/true")
            .write(path);
        return true;
    }
    bool uploadTraceFile(const std::string&, const std::string&) override { return true; }
};

// An agent's surroundings: an installed package, and a directory for results.
class OptionsScene {
public:
    OptionsScene()
        : operations(std::make_shared<QuietPackageServer>(), "", target.path(), "x86", "x64") {
        require(::setenv("TMPDIR", results.path().c_str(), 1) == 0, "the environment can be set");
        operations.onConnect();
        (void)collect("");  // waits for the installation
    }

    // Runs a collection and returns its result directory.
    std::string collect(const std::string& options) {
        fs::remove_all(results.path());
        fs::create_directory(results.path());
        require(operations.performCollection(options, "", {}) == 0, "the collector has run");
        fs::directory_iterator result(results.path());
        require(result != fs::directory_iterator(), "there is a result directory");
        return result->path();
    }

private:
    const TemporaryDirectory target;
    const TemporaryDirectory results;
    cagnt1::operations::Operations operations;
};

// Rewrites the text in one pass: "-r" on a line of its own is followed by the directory in place of
// the line that it is followed by.
std::string expectedFile(const std::string& options, const std::string& directory) {
    std::string file;
    std::string line;
    bool replaced = false;
    for (const char character : options + "\n") {
        if (character != '\n') {
            line += character;
            continue;
        }
        if (replaced) {
            replaced = false;
        } else {
            file += line + "\n";
            replaced = line == "-r";
            file += replaced ? directory + "\n" : "";
        }
        line.clear();
    }
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    silenceStreams();
    static OptionsScene scene;
    const std::string options(reinterpret_cast<const char*>(data), size);
    const int descriptor = lowestFreeDescriptor();

    const std::string result = scene.collect(options);

    requireEqual(expectedFile(options, result), readFile(result + "/config/trcap_remote.options"),
                 "the options file is as documented");
    require(descriptor == lowestFreeDescriptor(), "a collection leaves no descriptor open");
    return 0;
}
