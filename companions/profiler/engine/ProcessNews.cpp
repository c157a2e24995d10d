#include "companions/profiler/engine/ProcessNews.h"

#include "companions/profiler/base/MonotonicTime.h"
#include "companions/profiler/engine/Tasks.h"

namespace kolvan::profiler {

namespace {

/// How many times as long as reading the mappings and names of a process has taken they are good
/// for: of a small process they are read at each look, of one with thousands some times a second.
constexpr std::uint64_t kRestAfterNews = 20;

bool isSame(const CodeMapping& one, const CodeMapping& other) {
    return one.end == other.end && one.fileOffset == other.fileOffset &&
           one.device == other.device && one.inode == other.inode && one.path == other.path;
}

}  // namespace

void ProcessNews::introduce(pid_t process, EventSink& sink) {
    forget(process);
    tell(process, sink);
    processes[process].due = 0;  // one that has just begun is about to load its libraries
}

void ProcessNews::refresh(pid_t process, std::uint64_t time, EventSink& sink) {
    if (time >= processes[process].due) {
        tell(process, sink);
    }
}

void ProcessNews::tell(pid_t process, EventSink& sink) {
    const std::uint64_t begin = monotonicNow();
    Known& known = processes[process];
    for (const CodeMapping& mapping : codeMappingsOf(process)) {
        const auto [entry, isNew] = known.code.emplace(mapping.begin, mapping);
        if (isNew || !isSame(entry->second, mapping)) {
            entry->second = mapping;
            sink.onMapping(mapping);
        }
    }
    for (const pid_t thread : threadsOf(process)) {
        sink.onName(process, thread, nameOf(process, thread));
    }
    const std::uint64_t end = monotonicNow();
    known.due = end + kRestAfterNews * (end - begin);
}

}  // namespace kolvan::profiler
