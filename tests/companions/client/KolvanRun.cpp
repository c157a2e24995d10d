#include "tests/companions/client/KolvanRun.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::client::test {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

void check(int error) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "kolvan cannot be started");
    }
}

}  // namespace

KolvanRun::KolvanRun(const kolvan::test::TemporaryDirectory& home,
                     const std::vector<std::string>& arguments, Environment environment,
                     const basekit2::UniqueFd& input) {
    environment.try_emplace("HOME", home.path());
    std::vector<std::string> words = {"kolvan"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables;
    for (const auto& [name, value] : environment) {
        variables.push_back(name + "=" + value);
    }
    posix_spawn_file_actions_t actions;
    check(::posix_spawn_file_actions_init(&actions));
    const std::string output = directory.write("output", "");
    const std::string errors = directory.write("errors", "");
    check(input ? ::posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO)
                : ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY,
                                                     0));
    check(::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY, 0));
    check(::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY, 0));
    const int error = ::posix_spawn(&child, KOLVAN_PATH, &actions, nullptr, pointers(words).data(),
                                    pointers(variables).data());
    check(::posix_spawn_file_actions_destroy(&actions));
    check(error);
}

KolvanRun::~KolvanRun() {
    if (child > 0) {
        (void)::kill(child, SIGKILL);  // it has not been waited for
        (void)::waitpid(child, nullptr, 0);
    }
}

void KolvanRun::signal(int number) const {
    if (::kill(child, number) != 0) {
        throw std::system_error(errno, std::generic_category(), "kill");
    }
}

int KolvanRun::wait() {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Outcome KolvanRun::outcome() {
    const int code = wait();
    return {code, output(), errors()};
}

std::string KolvanRun::output() const {
    return kolvan::test::readFile(directory.path() / "output");
}

std::string KolvanRun::errors() const {
    return kolvan::test::readFile(directory.path() / "errors");
}

}  // namespace kolvan::client::test
