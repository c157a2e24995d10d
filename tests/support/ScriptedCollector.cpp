#include "tests/support/ScriptedCollector.h"

#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace fs = std::filesystem;

void runTool(const std::vector<std::string>& words) {
    std::vector<std::string> copies = words;
    std::vector<char*> arguments;
    for (std::string& word : copies) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t silence;
    ::posix_spawn_file_actions_init(&silence);
    ::posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&silence, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error =
        ::posix_spawnp(&child, arguments[0], &silence, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&silence);
    int status = -1;
    if (error != 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(words.front() + " has failed");
    }
}

namespace package {

void make(const fs::path& archive, const Content& content) {
    const TemporaryDirectory staging;
    const std::string inner = content.root + "/" + content.inner;
    staging.write(inner + "/version.txt", content.version);
    for (const std::string& name : content.moreFiles) {
        staging.write(content.root + "/" + name, "");
    }
    if (content.withCollector) {
        const fs::path collector = staging.entry(inner + "/kolvan-trcap");
        fs::copy_file(KOLVAN_SCRIPTED_COLLECTOR, collector);
        fs::permissions(collector, static_cast<fs::perms>(content.mode));
    }
    fs::create_directories(archive.parent_path());
    runTool({"tar", "--create", "--file", archive, "--directory", staging.path(), content.root});
}

void unpack(const fs::path& archive, const fs::path& directory) {
    fs::create_directories(directory);
    runTool({"tar", "--extract", "--file", archive, "--directory", directory});
}

}  // namespace package

std::string floodText(std::uint64_t bytes) {
    std::string text;
    text.reserve(bytes + 8);
    for (unsigned line = 0; text.size() < bytes; ++line) {
        std::array<char, 32> number{};
        std::snprintf(number.data(), number.size(), "%07u\n", line % 10000000U);
        text += number.data();
    }
    text.resize(bytes);
    return text;
}

std::string numberedLines(int count, const std::string& prefix) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += prefix + ' ' + std::to_string(i) + '\n';
    }
    return text;
}

Leash::Leash(const fs::path& path) : fifo(path) {
    // Open for both, so that opening does not wait for a reader and a reader does not wait for us.
    if (::mkfifo(fifo.c_str(), 0600) != 0) {
        throw std::system_error(errno, std::generic_category(), fifo);
    }
    writeEnd.reset(::open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    if (!writeEnd) {
        throw std::system_error(errno, std::generic_category(), fifo);
    }
}

void Leash::release() {
    // Whoever opens the pipe from now on finds it gone or opens the file that replaces it.
    std::error_code ignored;
    const fs::path released = fifo.string() + ".released";
    const basekit2::UniqueFd empty(::open(released.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    fs::rename(released, fifo, ignored);
    writeEnd.reset();
}

}  // namespace kolvan::test
