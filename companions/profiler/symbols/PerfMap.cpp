#include "companions/profiler/symbols/PerfMap.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr std::uint64_t kMostBytes = 256U << 20;   // of the file
constexpr std::size_t kMostFunctions = 1'000'000;  // about 120 bytes each
constexpr std::size_t kLongestLine = 4'096;

/// The number that the process knows itself by: another one, where it is in a container.
std::string ownNumber(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("NSpid:")) {
            return line.substr(line.find_last_of("\t ") + 1);
        }
    }
    return std::to_string(process);
}

/// Takes a hexadecimal number, with or without "0x" in front, and the blanks behind it.
std::optional<std::uint64_t> takeNumber(std::string_view& line) {
    line.remove_prefix(line.starts_with("0x") ? 2 : 0);
    std::uint64_t number = 0;
    const auto [behind, error] =
        std::from_chars(line.data(), line.data() + line.size(), number, 16);
    if (error != std::errc()) {
        return std::nullopt;
    }
    line.remove_prefix(static_cast<std::size_t>(behind - line.data()));
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    return number;
}

}  // namespace

void PerfMap::refresh() {
    if (!file) {
        open();
    }
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return;
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size < readBytes) {
        readBytes = 0;
        unfinished.clear();
        functions.clear();
    }
    std::array<char, 65'536> buffer{};
    while (readBytes < std::min(size, kMostBytes)) {
        const ssize_t count =
            ::pread(file.get(), buffer.data(), buffer.size(), static_cast<off_t>(readBytes));
        if (count <= 0) {
            return;  // what could not be read now may be read the next time
        }
        readBytes += static_cast<std::uint64_t>(count);
        std::string_view text(buffer.data(), static_cast<std::size_t>(count));
        for (std::size_t end = text.find('\n'); end != std::string_view::npos;
             end = text.find('\n')) {
            unfinished += text.substr(0, end);
            add(unfinished);
            unfinished.clear();
            text.remove_prefix(end + 1);
        }
        unfinished += text;
        if (unfinished.size() > kLongestLine) {
            unfinished.resize(kLongestLine);
        }
    }
}

std::optional<std::string_view> PerfMap::find(std::uint64_t address) const {
    const auto behind = functions.upper_bound(address);
    if (behind == functions.begin()) {
        return std::nullopt;
    }
    const auto& [begin, function] = *std::prev(behind);
    return address < function.end ? std::optional<std::string_view>(function.name) : std::nullopt;
}

void PerfMap::open() {
    const std::string process = "/proc/" + std::to_string(target);
    const std::string path = process + "/root/tmp/perf-" + ownNumber(target) + ".map";
    FileDescriptor found(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat owner {};
    struct stat status {};
    if (found && ::stat(process.c_str(), &owner) == 0 && ::fstat(found.get(), &status) == 0 &&
        S_ISREG(status.st_mode) && (status.st_uid == owner.st_uid || status.st_uid == 0)) {
        file = std::move(found);
    }
}

void PerfMap::add(std::string_view line) {
    const auto begin = takeNumber(line);
    const auto size = begin ? takeNumber(line) : std::nullopt;
    if (!size || *size == 0 || *begin + *size < *begin || line.empty()) {
        return;
    }
    const std::uint64_t end = *begin + *size;
    // Code that is compiled again takes the place of other code.
    auto place = functions.upper_bound(*begin);
    if (place != functions.begin() && std::prev(place)->second.end > *begin) {
        place = std::prev(place);
    }
    while (place != functions.end() && place->first < end) {
        place = functions.erase(place);
    }
    if (functions.size() < kMostFunctions) {
        functions.emplace_hint(place, *begin, Function{end, std::string(line)});
    }
}

}  // namespace kolvan::profiler
