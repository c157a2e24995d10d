#include "tests/companions/server/cli/ServerProgram.h"

#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace kolvan::test {

const std::string kServerProgram = KOLVAN_SERVER_PATH;

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> found;
    for (std::string& text : texts) {
        found.push_back(text.data());
    }
    found.push_back(nullptr);
    return found;
}

std::vector<std::string> wholeCommand(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {kServerProgram};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

int exitCodeOf(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ServerAnswer runServer(const std::vector<std::string>& arguments, const std::string& input,
                       const std::vector<std::string>& environment) {
    const TemporaryDirectory directory;
    const std::string in = directory.write("in", input);
    const std::string out = directory.write("out", "");
    const std::string err = directory.write("err", "");
    std::vector<std::string> words = wholeCommand(arguments);
    std::vector<std::string> variables = environment;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY, 0);
    pid_t child = -1;
    const int error = ::posix_spawn(&child, kServerProgram.c_str(), &actions, nullptr,
                                    pointers(words).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), kServerProgram);
    }
    const int exitCode = exitCodeOf(child);
    return {exitCode, readFile(out), readFile(err)};
}

ServerAtTerminal::ServerAtTerminal(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = wholeCommand(arguments);
    const std::vector<char*> argv = pointers(words);
    int master = -1;
    child = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (child == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "forkpty");
    }
    terminal.reset(master);
}

ServerAtTerminal::~ServerAtTerminal() {
    if (child > 0) {
        ::kill(child, SIGKILL);
        (void)exitCodeOf(child);
    }
}

void ServerAtTerminal::waitFor(const std::string& text) {
    while (screen.find(text) == std::string::npos) {
        if (!readSome()) {
            throw std::runtime_error("the program ended after: " + screen);
        }
    }
}

void ServerAtTerminal::type(const std::string& keys) const {
    if (::write(terminal.get(), keys.data(), keys.size()) != std::ssize(keys)) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
}

bool ServerAtTerminal::showsKeys() const {
    termios settings{};
    if (::tcgetattr(terminal.get(), &settings) != 0) {
        throw std::system_error(errno, std::generic_category(), "tcgetattr");
    }
    return (settings.c_lflag & static_cast<tcflag_t>(ECHO)) != 0;
}

int ServerAtTerminal::finish() {
    while (readSome()) {
    }
    const int exitCode = exitCodeOf(child);
    child = -1;
    return exitCode;
}

bool ServerAtTerminal::readSome() {
    std::array<char, 1000> bytes{};
    // A terminal that nobody has open any more reports a failure instead of its end.
    const ssize_t count = ::read(terminal.get(), bytes.data(), bytes.size());
    if (count > 0) {
        screen.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

}  // namespace kolvan::test
