#include "basekit2/process/SpawnPlan.h"

#include "basekit2/process/DescriptorLimit.h"
#include "basekit2/process/Pipe.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <string_view>

#include <sys/wait.h>
#include <unistd.h>

namespace basekit2::process {

namespace {

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        // execve takes char* for the sake of old programs and promises not to write.
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The directories of PATH, or the system's usual ones where it is not set. An empty one is the
// working directory (POSIX, "Other Environment Variables").
std::vector<std::string> programsAlongPath(const std::string& name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody here changes the environment
    const char* const variable = std::getenv("PATH");
    std::string_view path = variable != nullptr ? variable : "/bin:/usr/bin";
    std::vector<std::string> programs;
    for (;;) {
        const std::size_t end = path.find(':');
        std::string program(path.substr(0, end));
        if (!program.empty()) {
            program += '/';
        }
        programs.push_back(program += name);
        if (end == std::string_view::npos) {
            return programs;
        }
        path.remove_prefix(end + 1);
    }
}

std::vector<std::string> programsFor(const std::string& executable, bool searchPath) {
    const bool isName = !executable.empty() && executable.find('/') == std::string::npos;
    return searchPath && isName ? programsAlongPath(executable)
                                : std::vector<std::string>{executable};
}

// Blocks every signal that a program can handle, on this thread, while it lives: a handler must not
// run in a child that borrows our memory.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        (void)sigfillset(&all);
        // Neither call can fail: the arguments are valid.
        (void)::pthread_sigmask(SIG_SETMASK, &all, &former);
    }
    ~SignalsBlocked() { (void)::pthread_sigmask(SIG_SETMASK, &former, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t former{};
};

// Returns the child's number, or -1 with errno set.
pid_t createChild(const ProgramStart& start) noexcept {
    const SignalsBlocked blocked;
    // Not fork(2): that copies the page tables of a process which may hold gigabytes of output.
    // becomeProgram() calls only what a child by vfork(2) may call.
    const pid_t child = ::vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Vfork)
        becomeProgram(start);
    }
    return child;
}

// Returns 0 once the program runs, or the error that the child reports.
int readReport(int report) noexcept {
    int error = 0;
    ssize_t got = 0;
    do {
        got = ::read(report, &error, sizeof(error));
    } while (got < 0 && errno == EINTR);
    return got == sizeof(error) ? error : 0;
}

void reap(pid_t child) noexcept {
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

void SpawnPlan::mapDescriptor(int source, int target) {
    descriptors.push_back({source, target});
    firstClosed = std::max(firstClosed, target + 1);
}

void SpawnPlan::setWorkingDirectory(const std::string& directory) {
    workingDirectory = directory;
}

result_t SpawnPlan::spawn(const std::string& executable, const std::vector<std::string>& arguments,
                          const std::vector<std::string>* environment, bool searchPath,
                          pid_t& child) const {
    const std::vector<std::string> programs = programsFor(executable, searchPath);
    const std::vector<char*> programPointers = pointersTo(programs);
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> environmentPointers =
        environment != nullptr ? pointersTo(*environment) : std::vector<char*>();
    PipeEnds report;
    if (const result_t opened = openPipe(report); opened.is_failure()) {
        return opened;
    }
    const pid_t created = createChild(
        {.descriptors = descriptors,
         .firstClosed = firstClosed,
         .report = report.writeEnd.get(),
         .workingDirectory = workingDirectory.empty() ? nullptr : workingDirectory.c_str(),
         .descriptorLimit = former_descriptor_limit(),
         .programs = programPointers.data(),
         .arguments = argumentPointers.data(),
         .environment = environment != nullptr ? environmentPointers.data() : environ});
    if (created < 0) {
        return result_t::from_errno(errno);
    }
    report.writeEnd.reset();
    if (const int error = readReport(report.readEnd.get()); error != 0) {
        reap(created);
        return result_t::from_errno(error);
    }
    child = created;
    return result_t::no_error();
}

}  // namespace basekit2::process
