#include "tests/support/AgentProcess.h"

#include "tests/support/Gate.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

// How long to rest between two looks at something that the system does not announce.
constexpr std::chrono::milliseconds kLook{2};

// Exit status of a process that could not become the program.
constexpr int kNotStarted = 127;

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

/// What /proc tells of a process or thread.
struct ProcessState {
    std::string name;
    char state = '?';
    pid_t parent = -1;
};

std::optional<ProcessState> readState(const fs::path& directory) {
    std::ifstream file(directory / "stat");
    std::string text;
    std::getline(file, text, '\0');  // stays empty when the process ends at this moment
    // The name stands in parentheses and may hold some itself.
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end + 4 > text.size()) {
        return std::nullopt;
    }
    ProcessState state;
    state.name = text.substr(begin + 1, end - begin - 1);
    state.state = text[end + 2];
    state.parent = static_cast<pid_t>(std::strtol(text.c_str() + end + 4, nullptr, 10));
    return state;
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            result += '\\';
        }
        result += character;
    }
    return result + '"';
}

void giveEmptyDescriptor(int descriptor) {
    const int opened = ::open("/dev/null", O_RDWR);
    if (opened != descriptor) {
        ::dup2(opened, descriptor);
        ::close(opened);
    }
}

/// What the new process does before it becomes the program: only what is allowed after a fork.
void prepareProgram(const AgentLaunch& launch, int outputEnd, int errorsEnd) {
    // A test that dies takes its agent with it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setpgid(0, 0);
    giveEmptyDescriptor(STDIN_FILENO);
    ::dup2(outputEnd, STDOUT_FILENO);
    ::dup2(errorsEnd, STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    for (const int descriptor : launch.moreDescriptors) {
        giveEmptyDescriptor(descriptor);
    }
    for (const int descriptor : launch.closedDescriptors) {
        ::close(descriptor);
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = launch.softDescriptorLimit.value_or(limit.rlim_cur);
    limit.rlim_max = launch.hardDescriptorLimit.value_or(limit.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        ::_exit(kNotStarted);
    }
    for (const int number : launch.ignoredSignals) {
        struct sigaction ignoring {};
        ignoring.sa_handler = SIG_IGN;
        ::sigaction(number, &ignoring, nullptr);
    }
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : launch.blockedSignals) {
        sigaddset(&blocked, number);
    }
    ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
    if (!launch.mayReadEverything) {
        // What is not in the bounding set is lost where the program begins; see capabilities(7).
        // Only root has it, and only root may do this.
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
    }
    if (launch.traced) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    }
}

std::vector<std::string> environmentOf(const AgentLaunch& launch) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!launch.environment.contains(text.substr(0, text.find('=')))) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : launch.environment) {
        variables.push_back(name + "=" + value);
    }
    return variables;
}

std::string endingOf(const siginfo_t& info) {
    return info.si_code == CLD_EXITED ? "exited with " + std::to_string(info.si_status)
                                      : "killed by signal " + std::to_string(info.si_status);
}

}  // namespace

std::string AgentSettings::text() const {
    return "{\"accessToken\":" + quoted(accessToken) +
           ",\"serverEndpoint\":" + quoted(serverEndpoint) +
           ",\"serverCertificateName\":" + quoted(serverCertificateName) +
           ",\"buildVersion\":" + quoted(buildVersion) +
           ",\"x86TargetPackageArchiveName\":" + quoted(x86TargetPackageArchiveName) +
           ",\"x64TargetPackageArchiveName\":" + quoted(x64TargetPackageArchiveName) + "}";
}

AgentInstallation::AgentInstallation(const std::string& directoryName)
    : home(place.path() / directoryName) {
    fs::create_directories(home);
    fs::create_directory(temporaryFiles());
    // A link costs nothing; it cannot be made into another file system.
    std::error_code error;
    fs::create_hard_link(KOLVAN_AGENT_PATH, program(), error);
    if (error) {
        fs::copy_file(KOLVAN_AGENT_PATH, program());
    }
}

void AgentInstallation::configure(const std::string& text) const {
    std::ofstream file(configurationFile(), std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + configurationFile().string());
    }
}

std::vector<std::string> AgentInstallation::leftFiles() const {
    std::vector<std::string> files;
    for (const fs::path& root : {home, temporaryFiles()}) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            files.push_back(fs::relative(entry.path(), root));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

AgentLaunch::AgentLaunch(const AgentInstallation& installation)
    : program(installation.program()),
      firstArgument(installation.program()),
      workingDirectory(installation.directory()),
      environment{{"TMPDIR", installation.temporaryFiles()}} {}

/// Reads one stream to its end on a thread of its own.
class AgentProcess::StreamCollector {
public:
    StreamCollector() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            fail(errno, "pipe2");
        }
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
    }

    ~StreamCollector() { stop(); }

    StreamCollector(const StreamCollector&) = delete;
    StreamCollector& operator=(const StreamCollector&) = delete;

    int programsEnd() const { return writeEnd.get(); }

    /// Begins to read; the program has got its end.
    void start() {
        writeEnd.reset();
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            fail(errno, "pipe2");
        }
        stopReadEnd.reset(ends[0]);
        stopWriteEnd.reset(ends[1]);
        reader = std::thread([this] { read(); });
    }

    /// Gives up reading and closes the reading end.
    void stop() {
        stopWriteEnd.reset();
        if (reader.joinable()) {
            reader.join();
        }
        readEnd.reset();
    }

    bool waitForText(const std::string& expected) const {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, kDeadline,
                         [&] { return complete || text.find(expected) != std::string::npos; });
        return text.find(expected) != std::string::npos;
    }

    bool waitUntilComplete() const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kDeadline, [this] { return complete; });
    }

    std::string textSoFar() const {
        const std::lock_guard lock(mutex);
        return text;
    }

private:
    void read() {
        std::array<char, 65536> chunk{};
        for (;;) {
            std::array<pollfd, 2> sources{
                {{readEnd.get(), POLLIN, 0}, {stopReadEnd.get(), POLLIN, 0}}};
            if (::poll(sources.data(), sources.size(), -1) < 0) {
                continue;
            }
            if (sources[1].revents != 0) {
                break;
            }
            const ssize_t length = ::read(readEnd.get(), chunk.data(), chunk.size());
            if (length < 0 && errno == EINTR) {
                continue;
            }
            if (length <= 0) {
                break;
            }
            const std::lock_guard lock(mutex);
            text.append(chunk.data(), static_cast<std::size_t>(length));
            changed.notify_all();
        }
        const std::lock_guard lock(mutex);
        complete = true;
        changed.notify_all();
    }

    basekit2::UniqueFd readEnd;
    basekit2::UniqueFd writeEnd;
    basekit2::UniqueFd stopReadEnd;
    basekit2::UniqueFd stopWriteEnd;
    mutable std::mutex mutex;  // guards text and complete
    mutable std::condition_variable changed;
    std::string text;
    bool complete = false;
    std::thread reader;
};

AgentProcess::AgentProcess(const AgentLaunch& launch)
    : outputStream(std::make_unique<StreamCollector>()),
      errorStream(std::make_unique<StreamCollector>()) {
    // Whatever the agent leaves behind becomes a child of the test, and is found.
    if (::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
        fail(errno, "prctl");
    }
    start(launch);
    outputStream->start();
    errorStream->start();
    // By number: the library's own declaration lacks its C linkage.
    processHandle.reset(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    if (!processHandle) {
        fail(errno, "pidfd_open");
    }
}

AgentProcess::~AgentProcess() {
    // The group outlives its leader when the agent has left children behind.
    ::kill(-process, SIGKILL);
    if (ending.empty()) {
        ::waitpid(process, nullptr, 0);
    }
    while (::waitpid(-process, nullptr, 0) > 0) {
    }
}

void AgentProcess::start(const AgentLaunch& launch) {
    std::string firstArgument = launch.firstArgument;
    std::vector<std::string> moreArguments = launch.moreArguments;
    std::vector<char*> arguments{firstArgument.data()};
    for (std::string& argument : moreArguments) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    std::vector<std::string> variables = environmentOf(launch);
    std::vector<char*> environment;
    for (std::string& variable : variables) {
        environment.push_back(variable.data());
    }
    environment.push_back(nullptr);
    const std::string directory = launch.workingDirectory;
    const std::string program = launch.program;

    process = ::fork();
    if (process < 0) {
        fail(errno, "fork");
    }
    if (process == 0) {
        prepareProgram(launch, outputStream->programsEnd(), errorStream->programsEnd());
        if (::chdir(directory.c_str()) == 0) {
            ::execve(program.c_str(), arguments.data(), environment.data());
        }
        ::_exit(kNotStarted);
    }
    // Whoever of the two comes first: signals may be sent to the group from now on.
    ::setpgid(process, process);
}

void AgentProcess::sendSignal(int signalNumber) const {
    if (::kill(process, signalNumber) != 0) {
        fail(errno, "kill");
    }
}

void AgentProcess::sendSignalToGroup(int signalNumber) const {
    if (::kill(-process, signalNumber) != 0) {
        fail(errno, "kill");
    }
}

bool AgentProcess::sendSignalToThread(pid_t thread, int signalNumber) const {
    return ::syscall(SYS_tgkill, process, thread, signalNumber) == 0;
}

std::vector<pid_t> AgentProcess::threads() const {
    std::vector<pid_t> numbers;
    for (const fs::directory_entry& entry :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        numbers.push_back(std::stoi(entry.path().filename()));
    }
    return numbers;
}

bool AgentProcess::waitUntilDelivered(int signalNumber) const {
    const auto isDelivered = [&] {
        const std::uint64_t bit = std::uint64_t{1} << (signalNumber - 1);
        std::ifstream status("/proc/" + std::to_string(process) + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("ShdPnd:", 0) == 0) {
                return (std::stoull(line.substr(7), nullptr, 16) & bit) == 0;
            }
        }
        return true;
    };
    return lookUntil([&] { return !isRunning() || isDelivered(); }) && isRunning();
}

bool AgentProcess::isRunning() const {
    pollfd ended{processHandle.get(), POLLIN, 0};
    return ending.empty() && ::poll(&ended, 1, 0) == 0;
}

bool AgentProcess::waitUntilEnded() const {
    const Clock::time_point deadline = Clock::now() + kDeadline;
    pollfd ended{processHandle.get(), POLLIN, 0};
    for (;;) {
        const auto rest =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (rest.count() <= 0) {
            return false;
        }
        if (::poll(&ended, 1, static_cast<int>(rest.count())) > 0) {
            return true;
        }
    }
}

std::string AgentProcess::waitForEnd() {
    if (!ending.empty()) {
        return ending;
    }
    if (!waitUntilEnded()) {
        return "still running";
    }
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(process), &info, WEXITED) != 0) {
        fail(errno, "waitid");
    }
    ending = endingOf(info);
    if (!outputStream->waitUntilComplete() || !errorStream->waitUntilComplete()) {
        ending += ", and somebody still holds its streams";
    }
    return ending;
}

bool AgentProcess::waitForOutput(const std::string& text) const {
    return outputStream->waitForText(text);
}

bool AgentProcess::waitForErrors(const std::string& text) const {
    return errorStream->waitForText(text);
}

std::string AgentProcess::output() const {
    return outputStream->textSoFar();
}

std::string AgentProcess::errors() const {
    return errorStream->textSoFar();
}

void AgentProcess::stopReadingOutput() {
    outputStream->stop();
}

bool lookUntil(const std::function<bool()>& condition) {
    const Clock::time_point deadline = Clock::now() + kDeadline;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(kLook);
    }
    return true;
}

std::vector<std::string> leftChildren() {
    std::vector<std::string> children;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string number = entry.path().filename();
        if (number.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const auto state = readState(entry.path());
        if (state && state->parent == ::getpid()) {
            children.push_back(number + ' ' + state->state + ' ' + state->name);
        }
    }
    return children;
}

bool waitUntilNoChildIsLeft() {
    return lookUntil([] {
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        return leftChildren().empty();
    });
}

bool waitUntilStoppedBySignal(pid_t process) {
    return lookUntil([&] {
        const auto state = readState("/proc/" + std::to_string(process));
        return state && state->state == 'T';
    });
}

}  // namespace kolvan::test
