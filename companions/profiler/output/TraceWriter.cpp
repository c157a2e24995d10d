#include "companions/profiler/output/TraceWriter.h"

#include "companions/profiler/output/OutputFile.h"
#include "companions/profiler/output/TextEscape.h"

#include <cerrno>
#include <cstddef>

#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kFlushSize = std::size_t{64} * 1024;
constexpr std::string_view kBeginning = R"({"displayTimeUnit":"ms","traceEvents":[)";
constexpr std::string_view kEnding = "\n]}\n";

}  // namespace

TraceWriter::TraceWriter(std::string path, pid_t pid)
    : filePath(std::move(path)),
      pidText(std::to_string(pid)),
      file(createFile(filePath)),
      pending(kBeginning) {
    flush();
}

void TraceWriter::nameProcess(std::string_view name) {
    add(R"({"ph":"M","name":"process_name","pid":)" + pidText + R"(,"args":{"name":)" +
        jsonString(name) + "}}");
}

void TraceWriter::nameThread(pid_t thread, std::string_view name) {
    add(R"({"ph":"M","name":"thread_name","pid":)" + pidText + R"(,"tid":)" +
        std::to_string(thread) + R"(,"args":{"name":)" + jsonString(name) + "}}");
}

void TraceWriter::counter(std::string_view name, std::int64_t time,
                          std::initializer_list<Series> series) {
    std::string event = R"({"ph":"C","name":)" + jsonString(name) + R"(,"pid":)" + pidText +
                        R"(,"ts":)" + std::to_string(time) + R"(,"args":{)";
    const char* separator = "";
    for (const auto& [key, value] : series) {
        event += separator + jsonString(key) + ':' + decimalText(value, 1);
        separator = ",";
    }
    add(event + "}}");
}

void TraceWriter::slice(pid_t thread, std::string_view name, std::int64_t time,
                        std::int64_t length) {
    add(R"({"ph":"X","name":)" + jsonString(name) + R"(,"cat":"state","pid":)" + pidText +
        R"(,"tid":)" + std::to_string(thread) + R"(,"ts":)" + std::to_string(time) + R"(,"dur":)" +
        std::to_string(length) + "}");
}

void TraceWriter::flush() {
    if (!pending.empty()) {
        write(kEnding);
    }
}

void TraceWriter::finish(std::string_view otherData) {
    write("\n],\"otherData\":" + std::string(otherData) + "}\n");
    if (!file.close()) {
        failWriting(filePath, errno);
    }
}

void TraceWriter::add(std::string_view event) {
    pending += empty ? "\n" : ",\n";
    pending += event;
    empty = false;
    if (pending.size() >= kFlushSize) {
        flush();
    }
}

void TraceWriter::write(std::string_view ending) {
    const std::size_t added = pending.size();
    pending += ending;
    if (!writeAt(eventsEnd, pending)) {
        const int error = errno;
        if (eventsEnd == 0) {
            (void)::unlink(filePath.c_str());  // half a beginning is of no use to anybody
        } else if (::ftruncate(file.get(), static_cast<off_t>(eventsEnd)) == 0) {
            // The brackets fitted there before; whether they do again changes nothing about the
            // failure that is reported.
            (void)writeAt(eventsEnd, kEnding);
        }
        failWriting(filePath, error);
    }
    eventsEnd += added;
    pending.clear();
}

bool TraceWriter::writeAt(std::uint64_t offset, std::string_view text) const {
    while (!text.empty()) {
        const ssize_t count =
            ::pwrite(file.get(), text.data(), text.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(count);
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace kolvan::profiler
