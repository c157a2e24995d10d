#include "tests/support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kolvan::test {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
    std::string name = fs::temp_directory_path() / "kolvan-test-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    directory = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;  // a test that took away permissions has failed in its own way
    fs::remove_all(directory, ignored);
}

std::string TemporaryDirectory::write(const std::string& relativePath,
                                      const std::string& content) const {
    const fs::path file = directory / relativePath;
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + file.string());
    }
    return file;
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot read " + file.string());
    }
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

}  // namespace kolvan::test
