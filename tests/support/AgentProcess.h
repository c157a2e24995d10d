#pragma once

#include "basekit2/UniqueFd.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

namespace kolvan::test {

/// The six settings of the configuration file.
struct AgentSettings {
    std::string accessToken = "secret-token";
    std::string serverEndpoint;
    std::string serverCertificateName;
    std::string buildVersion;
    std::string x86TargetPackageArchiveName = "package-x86.tar";
    std::string x64TargetPackageArchiveName = "package-x64.tar";

    /// Text of the configuration file.
    std::string text() const;
};

/// An installed agent: a directory of its own with the program in it.
///
/// Beside it lies the directory that the agent is given for its temporary files. All of it goes at
/// the end.
class AgentInstallation {
public:
    /// Installs the program.
    /// @param directoryName name of the installation directory; it may hold any characters
    explicit AgentInstallation(const std::string& directoryName = "agent");

    /// Writes the configuration file.
    void configure(const std::string& text) const;

    std::filesystem::path directory() const { return home; }
    std::filesystem::path program() const { return home / "kolvan-agent"; }
    std::filesystem::path configurationFile() const { return home / "kolvan-agent.config.json"; }
    std::filesystem::path target() const { return home / "target"; }

    /// Where result directories are made.
    std::filesystem::path temporaryFiles() const { return place.path() / "temporary"; }

    /// A place for the test's own files, removed with the rest.
    const TemporaryDirectory& surroundings() const { return place; }

    /// Every entry below the installation directory and below the directory of temporary files, as
    /// sorted relative paths: what the agent has left behind.
    std::vector<std::string> leftFiles() const;

private:
    TemporaryDirectory place;
    std::filesystem::path home;
};

/// How a program is started.
struct AgentLaunch {
    explicit AgentLaunch(const AgentInstallation& installation);

    std::filesystem::path program;
    std::string firstArgument;               ///< argv[0]
    std::vector<std::string> moreArguments;  ///< for programs other than the agent, which has none
    std::filesystem::path workingDirectory;
    std::map<std::string, std::string> environment;  ///< in addition to the test's own
    std::vector<int> ignoredSignals;
    std::vector<int> blockedSignals;
    std::vector<int> closedDescriptors;  ///< of 0, 1 and 2
    std::vector<int> moreDescriptors;    ///< from 3 on: given to the program, on the null device
    std::optional<rlim_t> softDescriptorLimit;
    std::optional<rlim_t> hardDescriptorLimit;  ///< where it cannot be set, nothing is started
    bool mayReadEverything = true;  ///< false: not even as root, but for what permissions allow
    bool traced = false;            ///< it does not begin to run before `SystemCalls` follows it
};

/// A running agent. Its two output streams are collected as they come; its standard input is the
/// null device. It is the leader of a process group of its own, which its children share.
///
/// The test becomes the parent of whatever the agent leaves behind. At the end the whole group is
/// killed and everything is reaped. The agent is also killed when the thread that has started it
/// ends, however that comes about.
///
/// Threads: one thread uses it.
class AgentProcess {
public:
    /// Starts the program. One that cannot be run ends with 127.
    /// @throws std::system_error when no process can be made
    explicit AgentProcess(const AgentLaunch& launch);
    ~AgentProcess();

    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t pid() const { return process; }

    void sendSignal(int signalNumber) const;
    void sendSignalToGroup(int signalNumber) const;

    /// Sends a signal to one thread.
    /// @return false when the thread is gone
    bool sendSignalToThread(pid_t thread, int signalNumber) const;

    /// Blocks until no signal of this number is waiting to be delivered to the process any more.
    /// @return false when the process has ended or the deadline passed
    bool waitUntilDelivered(int signalNumber) const;

    /// Numbers of the threads that the process has now.
    std::vector<pid_t> threads() const;

    bool isRunning() const;

    /// Blocks until the process has ended and its streams are complete.
    /// @return "exited with 0", "killed by signal 15", or "still running" when the deadline passed
    std::string waitForEnd();

    /// Blocks until the stream contains the text.
    /// @return false when the deadline passed or the stream ended without it
    bool waitForOutput(const std::string& text) const;
    bool waitForErrors(const std::string& text) const;

    /// What standard output, or standard error, has carried so far.
    std::string output() const;
    std::string errors() const;

    /// Closes the reading end of the agent's standard output.
    void stopReadingOutput();

private:
    class StreamCollector;

    void start(const AgentLaunch& launch);
    bool waitUntilEnded() const;

    pid_t process = -1;
    basekit2::UniqueFd processHandle;
    std::unique_ptr<StreamCollector> outputStream;
    std::unique_ptr<StreamCollector> errorStream;
    std::string ending;
};

/// Blocks until the condition holds, for what nobody announces: it is looked at again and again.
/// @return false when the deadline passed
bool lookUntil(const std::function<bool()>& condition);

/// Child processes that this test still has, zombies included, each as "<number> <state> <name>".
/// What an agent has left behind is among them.
std::vector<std::string> leftChildren();

/// Blocks until this test has no child process any more. Reaps them; to be called when no agent
/// runs.
/// @return false when the deadline passed
bool waitUntilNoChildIsLeft();

/// Blocks until the system says that the process is stopped, which SIGSTOP brings about.
/// @return false when the deadline passed
bool waitUntilStoppedBySignal(pid_t process);

}  // namespace kolvan::test
