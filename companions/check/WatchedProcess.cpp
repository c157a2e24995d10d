#include "companions/check/WatchedProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>

namespace kolvan::check {

namespace fs = std::filesystem;

namespace {

/// As far as it can be read: a process may go away after its file was opened, which the iterators
/// of a stream would throw.
std::string textOf(const fs::path& file) {
    const std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

template <typename Number>
Number numberFrom(std::string_view text, int base) {
    Number number{};
    (void)std::from_chars(text.data(), text.data() + text.size(), number, base);  // 0 if none
    return number;
}

// "0100007F:1F90" is 127.0.0.1:8080: words of 32 bits in the machine's order, then the port.
std::string addressFrom(std::string_view hexadecimal) {
    constexpr std::size_t kDigitsOfWord = 8;
    const std::size_t colon = hexadecimal.find(':');
    const std::string_view digits = hexadecimal.substr(0, colon);
    std::array<std::uint32_t, 4> words{};
    const std::size_t count = std::min(digits.size() / kDigitsOfWord, words.size());
    for (std::size_t i = 0; i < count; ++i) {
        words.at(i) =
            numberFrom<std::uint32_t>(digits.substr(i * kDigitsOfWord, kDigitsOfWord), 16);
    }
    const bool isLong = count == words.size();
    std::array<char, INET6_ADDRSTRLEN> name{};
    (void)::inet_ntop(isLong ? AF_INET6 : AF_INET, words.data(), name.data(), name.size());
    const std::string host = isLong ? "[" + std::string(name.data()) + "]" : name.data();
    const auto port = numberFrom<unsigned>(hexadecimal.substr(colon + 1), 16);
    return host + ":" + std::to_string(port);
}

}  // namespace

std::vector<std::string> connectionsIn(std::string_view table, const Sockets& sockets) {
    constexpr std::size_t kRemoteAddress = 2;
    constexpr std::size_t kState = 3;
    constexpr std::size_t kSocket = 9;
    std::vector<std::string> connections;
    std::istringstream lines{std::string(table)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream columns(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(columns), {}};
        if (words.size() <= kSocket || !sockets.contains(words[kSocket])) {
            continue;
        }
        if (words[kState] == "01" || words[kState] == "02") {  // ESTABLISHED, SYN_SENT
            connections.push_back(addressFrom(words[kRemoteAddress]));
        }
    }
    return connections;
}

WatchedProcess::WatchedProcess(pid_t number)
    : process(number), directory("/proc/" + std::to_string(number)), started(startTime()) {
    if (!fs::exists("/proc/thread-self/children")) {
        // Without them an agent in the middle of its work would pass for one that is alone.
        throw std::runtime_error("this system does not tell which children a process has");
    }
}

Sockets WatchedProcess::sockets() const {
    constexpr std::string_view kSocket = "socket:[";
    Sockets found;
    for (const fs::path& entry : entries("fd")) {
        std::error_code closed;
        const std::string target = fs::read_symlink(entry, closed).string();
        if (!closed && target.starts_with(kSocket)) {
            found.insert(target.substr(kSocket.size(), target.size() - kSocket.size() - 1));
        }
    }
    checkThatItLives();
    return found;
}

std::vector<std::string> WatchedProcess::connections(const Sockets& sockets) const {
    std::vector<std::string> found;
    for (const char* table : {"net/tcp", "net/tcp6"}) {
        for (std::string& connection : connectionsIn(textOf(directory / table), sockets)) {
            found.push_back(std::move(connection));
        }
    }
    checkThatItLives();
    return found;
}

std::vector<pid_t> WatchedProcess::children() const {
    std::vector<pid_t> found;
    for (const fs::path& thread : entries("task")) {
        std::istringstream numbers(textOf(thread / "children"));
        found.insert(found.end(), std::istream_iterator<pid_t>(numbers), {});
    }
    checkThatItLives();
    return found;
}

std::string WatchedProcess::programPath() const {
    const std::string arguments = textOf(directory / "cmdline");
    const std::string first = arguments.substr(0, arguments.find('\0'));
    std::error_code error;
    const fs::path workingDirectory = fs::read_symlink(directory / "cwd", error);
    return (workingDirectory / first).string();  // `first` alone where it is absolute
}

// What was read may be of nobody, or of another process that has got the number.
void WatchedProcess::checkThatItLives() const {
    if (startTime() != started) {
        fail(std::make_error_code(std::errc::no_such_file_or_directory), "");
    }
}

// Throws where the process is gone, also while its parent has not asked for its end yet.
std::string WatchedProcess::startTime() const {
    // Counted from the state, which follows the name; the name may hold any characters.
    constexpr std::size_t kStartTime = 19;
    const std::string text = textOf(directory / "stat");
    const std::size_t nameEnd = text.rfind(')');
    std::istringstream columns(nameEnd == std::string::npos ? "" : text.substr(nameEnd + 1));
    const std::vector<std::string> words{std::istream_iterator<std::string>(columns), {}};
    if (words.size() <= kStartTime || words[0] == "Z" || words[0] == "X") {
        fail(std::make_error_code(std::errc::no_such_file_or_directory), "");
    }
    return words[kStartTime];
}

std::vector<fs::path> WatchedProcess::entries(const char* name) const {
    std::vector<fs::path> found;
    std::error_code error;
    fs::directory_iterator entry(directory / name, error);
    while (!error && entry != fs::directory_iterator()) {
        found.push_back(entry->path());
        entry.increment(error);
    }
    if (error) {
        fail(error, name);
    }
    return found;
}

void WatchedProcess::fail(const std::error_code& reason, const char* what) const {
    if (reason.value() == ENOENT || reason.value() == ESRCH) {
        throw std::runtime_error("there is no process " + std::to_string(process));
    }
    throw std::system_error(reason, "cannot look at " + (directory / what).string());
}

}  // namespace kolvan::check
