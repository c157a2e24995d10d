#include "tests/operations/OwnProcess.h"

#include "basekit2/UniqueFd.h"

#include <cerrno>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cagnt1::operations {

namespace {

constexpr unsigned kPatienceSeconds = 120;
constexpr unsigned kNobody = 65534;

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

[[noreturn]] void runBody(const std::function<std::string()>& body, int output) {
    ::alarm(kPatienceSeconds);
    std::string report;
    try {
        report = body();
    } catch (const std::exception& error) {
        report = std::string("unexpected: ") + error.what();
    }
    // A pipe, because limits on files do not apply to it.
    const bool written =
        ::write(output, report.data(), report.size()) == static_cast<ssize_t>(report.size());
    // Without the destructors of what belongs to the parent.
    ::_exit(written ? 0 : 1);
}

std::string contentOf(int descriptor) {
    std::string content;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::read(descriptor, buffer, sizeof(buffer))) > 0) {
        content.append(buffer, static_cast<std::size_t>(got));
    }
    return content;
}

}  // namespace

std::string inOwnProcess(const std::function<std::string()>& body) {
    int ends[2] = {-1, -1};
    require(::pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    const basekit2::UniqueFd input(ends[0]);
    basekit2::UniqueFd output(ends[1]);
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        runBody(body, output.get());
    }
    output.reset();
    const std::string report = contentOf(input.get());
    int status = 0;
    require(::waitpid(child, &status, 0) == child, "waitpid");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("own process ended with status " + std::to_string(status) +
                                 " after: " + report);
    }
    return report;
}

void dropPrivileges() {
    if (::geteuid() == 0) {
        require(::setgroups(0, nullptr) == 0, "setgroups");
        require(::setresgid(kNobody, kNobody, kNobody) == 0, "setresgid");
        require(::setresuid(kNobody, kNobody, kNobody) == 0, "setresuid");
        // Otherwise the process could not look into its own /proc directory any more.
        require(::prctl(PR_SET_DUMPABLE, 1) == 0, "prctl");
    }
}

void limitDescriptors(std::size_t more) {
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    require(next >= 0, "open");
    ::close(next);
    rlimit limit{};
    require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = static_cast<rlim_t>(next) + more;
    require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

void limitFileSize(std::size_t bytes) {
    require(std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR, "signal");
    const rlimit limit{bytes, bytes};
    require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "setrlimit");
}

namespace {

bool writeText(const char* path, const std::string& text) {
    const basekit2::UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
    return file &&
           ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Without the superuser's rights a user namespace is needed too, in which the user is itself.
bool isolateMounts() {
    if (::unshare(CLONE_NEWNS) == 0) {
        return true;
    }
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
           writeText("/proc/self/setgroups", "deny") &&
           writeText("/proc/self/uid_map", user + " " + user + " 1") &&
           writeText("/proc/self/gid_map", group + " " + group + " 1");
}

}  // namespace

bool mountSmallDisk(const std::string& directory, std::size_t bytes) {
    const std::string options = "size=" + std::to_string(bytes) + ",mode=0777";
    return isolateMounts() && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

}  // namespace cagnt1::operations
