#include "companions/profiler/output/OutputFile.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kolvan::profiler {

FileDescriptor createFile(const std::string& path) {
    FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file) {
        failWriting(path, errno);
    }
    return file;
}

void failWriting(const std::string& path, int error) {
    throw Failure(ExitCode::NotWritten, "cannot write '" + path + "': " + errorText(error));
}

OutputFile::OutputFile(std::string path) : filePath(std::move(path)), file(createFile(filePath)) {}

OutputFile::~OutputFile() {
    if (!whole) {
        (void)::unlink(filePath.c_str());  // the failure that led here is the one to report
    }
}

void OutputFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file.get(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            failWriting(filePath, errno);
        }
        bytes.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
}

void OutputFile::close() {
    if (!file.close()) {
        failWriting(filePath, errno);
    }
    whole = true;
}

void writeTextFile(const std::string& path, std::string_view text) {
    OutputFile file(path);
    file.write(text);
    file.close();
}

}  // namespace kolvan::profiler
