#include "companions/profiler/engine/TracingTrial.h"

#include <cerrno>
#include <csignal>

#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::profiler {

int tryTracing() {
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            (void)::pause();
        }
    }
    if (child < 0) {
        return errno;
    }
    const int error = ::ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0 ? 0 : errno;
    (void)::kill(child, SIGKILL);
    (void)::waitpid(child, nullptr, __WALL);
    return error;
}

}  // namespace kolvan::profiler
