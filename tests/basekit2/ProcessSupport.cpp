#include "tests/basekit2/ProcessSupport.h"

#include "tests/helpers/Pattern.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace fs = std::filesystem;

using basekit2::make_ref_counted;
using basekit2::result_t;
using basekit2::process::IProcess;

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

std::size_t threadCount() {
    const fs::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

/// What waiting for any child says, without waiting: empty when there is none.
std::string childrenLeft() {
    siginfo_t info{};
    if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT | __WALL) != 0) {
        return errno == ECHILD ? "" : std::generic_category().message(errno);
    }
    return info.si_pid == 0 ? "a running child" : "the zombie " + std::to_string(info.si_pid);
}

}  // namespace

void giveUp(const char* what) {
    (void)std::fprintf(stderr, "no end within %lld s: %s\n",
                       static_cast<long long>(kDeadline.count()), what);
    std::abort();
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        ::sched_yield();
    }
    return true;
}

void Transcript::append(const std::string& chunk) {
    const std::lock_guard lock(chunksMutex);
    received.push_back(chunk);
    changed.notify_all();
}

std::string Transcript::text() const {
    const std::lock_guard lock(chunksMutex);
    return joined();
}

std::vector<std::string> Transcript::chunks() const {
    const std::lock_guard lock(chunksMutex);
    return received;
}

bool Transcript::waitFor(const std::string& part) const {
    std::unique_lock lock(chunksMutex);
    return changed.wait_for(lock, kDeadline,
                            [&] { return joined().find(part) != std::string::npos; });
}

std::string Transcript::joined() const {
    std::string all;
    for (const std::string& chunk : received) {
        all += chunk;
    }
    return all;
}

result_t RecordingReader::onData(const char* data, std::int32_t length) {
    append(std::string(data, static_cast<std::size_t>(length)));
    return result_t::no_error();
}

const std::string& RecordingReader::get_type() const {
    static const std::string type = "RecordingReader";
    return type;
}

result_t ThrowingReader::onData(const char* data, std::int32_t length) {
    (void)RecordingReader::onData(data, length);
    throw std::runtime_error("a callback that fails");
}

result_t PatternReader::onData(const char* data, std::int32_t length) {
    const std::lock_guard lock(stateMutex);
    for (std::int32_t i = 0; i < length; ++i) {
        different = different || data[i] != patternByte(channel, received);
        ++received;
    }
    return result_t::no_error();
}

const std::string& PatternReader::get_type() const {
    static const std::string type = "PatternReader";
    return type;
}

std::optional<std::uint64_t> PatternReader::matchingBytes() const {
    const std::lock_guard lock(stateMutex);
    return different ? std::nullopt : std::optional(received);
}

basekit2::generic_iterator_t<std::string> argumentsOf(const std::vector<std::string>& list) {
    return basekit2::make_generic_iterator(list);
}

result_t startProgram(IProcess& process, const std::string& executable,
                      const std::vector<std::string>& arguments,
                      const std::string& workingDirectory) {
    return process.start(executable, argumentsOf(arguments), /*environment=*/{}, workingDirectory,
                         /*reserved1=*/0, /*reserved2=*/0, /*searchPath=*/0);
}

ChildRun::ChildRun()
    : out(make_ref_counted<RecordingReader>()),
      err(make_ref_counted<RecordingReader>()),
      feedback(make_ref_counted<RecordingReader>()),
      process(IProcess::create()) {
    std::string number;
    EXPECT_EQ(result_t::no_error(), process->openOutputPipe(feedback, number));
    EXPECT_EQ("3", number);
    EXPECT_EQ(result_t::no_error(), process->connectOutputStream(1, out));
    EXPECT_EQ(result_t::no_error(), process->connectOutputStream(2, err));
}

result_t ChildRun::start(const std::vector<std::string>& actions,
                         const std::string& workingDirectory) {
    return startProgram(*process, KOLVAN_TEST_CHILD, actions, workingDirectory);
}

int ChildRun::wait() {
    return withinDeadline([this] { return process->wait(); });
}

std::string outputOf(const std::vector<std::string>& actions) {
    ChildRun run;
    EXPECT_EQ(result_t::no_error(), run.start(actions));
    EXPECT_EQ(0, run.wait());
    EXPECT_EQ("", run.err->text());
    return run.out->text();
}

std::string withNamedPipes(const std::string& report) {
    std::istringstream stream(report);
    std::vector<std::string> pipes;
    std::string named;
    for (std::string line; std::getline(stream, line);) {
        const std::size_t mode = line.find(' ') + 1;
        const std::size_t target = line.find(' ', mode) + 1;
        const std::string kind = line.substr(target, 5);
        if (line.starts_with("0 ")) {
            line.erase(mode, target - mode);
        } else if (kind == "pipe:") {
            const std::string pipe = line.substr(target);
            const auto known = std::find(pipes.begin(), pipes.end(), pipe);
            const auto index = known - pipes.begin();
            if (known == pipes.end()) {
                pipes.push_back(pipe);
            }
            line.replace(target, std::string::npos,
                         std::string("pipe ") + static_cast<char>('A' + index));
        }
        named += line + '\n';
    }
    return named;
}

Fifo::Fifo(std::string file) : name(std::move(file)) {
    if (::mkfifo(name.c_str(), 0600) != 0) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    end.reset(::open(name.c_str(), O_RDWR | O_CLOEXEC));
    if (!end) {
        throw std::system_error(errno, std::generic_category(), name);
    }
}

Fifo::~Fifo() {
    release();
}

void Fifo::release() {
    // First the name, so that whoever does not find it knows, then the end that others wait for.
    (void)::unlink(name.c_str());
    end.reset();
}

CrowdedDescriptors::CrowdedDescriptors(std::size_t room) {
    constexpr rlim_t kSmallLimit = 64;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit");
    }
    formerLimit = limit.rlim_cur;
    limit.rlim_cur = kSmallLimit;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
    for (int number = 0; (number = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
        fillers.emplace_back(number);
    }
    fillers.resize(fillers.size() - std::min(room, fillers.size()));
}

CrowdedDescriptors::~CrowdedDescriptors() {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = formerLimit;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

std::map<int, std::string> openDescriptors() {
    const std::unique_ptr<DIR, DirectoryCloser> directory(::opendir("/proc/self/fd"));
    std::map<int, std::string> found;
    while (const dirent* entry = ::readdir(directory.get())) {
        const int number = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && number != ::dirfd(directory.get())) {
            std::error_code vanished;
            found[number] =
                fs::read_symlink(fs::path("/proc/self/fd") / entry->d_name, vanished).string();
        }
    }
    return found;
}

bool isRunning(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string content;
    // The state follows the name, which is in brackets and may hold anything.
    if (!std::getline(stat, content) || content.rfind(')') == std::string::npos) {
        return false;
    }
    const char state = content.at(content.rfind(')') + 2);
    return state != 'Z' && state != 'X';
}

int exitCodeOfOurChild(pid_t child) {
    int status = 0;
    const pid_t ended = withinDeadline([&] { return ::waitpid(child, &status, 0); });
    return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t reapGrandchild() {
    return withinDeadline([] { return ::waitpid(-1, nullptr, __WALL); });
}

AuditedProcessTest::AuditedProcessTest() {
    // Orphaned grandchildren become ours, so that a test can wait for their end too.
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    // A sanitizer's own thread appears with the first other thread of the program.
    pid_t first = 0;
    std::thread([&first] { first = ::gettid(); }).join();
    const fs::path firstEntry = "/proc/self/task/" + std::to_string(first);
    (void)eventually([&] { return !fs::exists(firstEntry); });
    formerDescriptors = openDescriptors();
    formerThreads = threadCount();
}

AuditedProcessTest::~AuditedProcessTest() {
    EXPECT_EQ("", childrenLeft());
    EXPECT_EQ(formerDescriptors, openDescriptors());
    // The kernel drops a thread from its list a moment after the join.
    EXPECT_TRUE(eventually([this] { return threadCount() <= formerThreads; }))
        << threadCount() - formerThreads << " threads are left";
}

}  // namespace kolvan::test
