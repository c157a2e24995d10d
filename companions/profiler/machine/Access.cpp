#include "companions/profiler/machine/Access.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/engine/PerfEvent.h"
#include "companions/profiler/engine/Tasks.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>

#include <fcntl.h>
#include <linux/capability.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

constexpr int kAllProcessors = -1;

int errorOf(const FileDescriptor& descriptor) {
    return descriptor ? 0 : errno;
}

int openError(const std::string& path) {
    return errorOf(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

/// Of the first thread that has not ended: the first one of a process may have.
int samplingError(pid_t process, perf_event_attr& description) {
    int error = ESRCH;
    for (const pid_t thread : threadsOf(process)) {
        error = errorOf(openEvent(description, thread, kAllProcessors));
        if (error != ESRCH) {
            break;
        }
    }
    return error;
}

/// Whether all its user numbers are ours, which is what the kernel asks for.
bool belongsTo(pid_t process, uid_t user) {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);) {
        std::array<uid_t, 3> users{};
        if (std::sscanf(line.c_str(), "Uid: %u %u %u", &users[0], &users[1], &users[2]) == 3) {
            return users == std::array<uid_t, 3>{user, user, user};
        }
    }
    return false;
}

}  // namespace

Trial tryProcess(pid_t process) {
    Trial trial;
    perf_event_attr description = describeEvent({});
    description.disabled = 1;
    trial.samplingInKernelError = samplingError(process, description);
    trial.samplingError = trial.samplingInKernelError;
    if (trial.samplingError != 0) {
        excludeKernel(description);
        trial.samplingError = samplingError(process, description);
    }
    const std::string directory = "/proc/" + std::to_string(process);
    trial.tracingError = openError(directory + "/mem");
    trial.mappingsError = openError(directory + "/maps");
    trial.tracer = tracerOf(process);
    trial.isOwn = belongsTo(process, ::geteuid());
    return trial;
}

Access judge(const Trial& trial, const Machine& machine) {
    Access access;
    if (trial.samplingError == 0) {
        access.engine = Access::Engine::Perf;
        if (trial.mappingsError != 0) {
            access.reason = "its functions get no names, as what it has mapped may not be read: " +
                            errorText(trial.mappingsError);
            access.help = machine.has(CAP_SYS_PTRACE)
                              ? "a security module of the system that allows it"
                              : "CAP_SYS_PTRACE";
        } else if (trial.samplingInKernelError != 0) {
            access.reason = "neither time in the kernel is seen nor where threads wait" +
                            paranoidRemark(machine.sampling.paranoid);
            access.help = "kernel.perf_event_paranoid at most 1, or CAP_PERFMON";
        }
        return access;
    }
    const std::string sampling = "perf_event_open: " + errorText(trial.samplingError) +
                                 paranoidRemark(machine.sampling.paranoid);
    const std::string cure = cureOf(obstacleOf(trial.samplingError, machine.sampling));
    if (trial.tracingError == 0 && trial.tracer == 0) {
        access.engine = Access::Engine::Ptrace;
        access.reason = "by stops only, 100 times a second at most; " + sampling;
        access.help = cure;
    } else if (!trial.isOwn) {
        access.reason = "it belongs to another user, or has other rights";
        access.help = "its own user may, or root";
    } else if (trial.tracingError == 0) {
        access.reason = "a debugger traces it already, and " + sampling;
        access.help = "the end of the debugger; or " + cure;
    } else if (machine.ptraceScope.value_or(0) > 0) {
        access.reason =
            sampling + "; kernel.yama.ptrace_scope is " + std::to_string(*machine.ptraceScope);
        access.help = cure + "; or kernel.yama.ptrace_scope 0, or to let kolvan-trcap start it";
    } else {
        access.reason = sampling + "; ptrace: " + errorText(trial.tracingError);
        access.help = "root may: the process has changed its rights, or a filter forbids the calls";
    }
    return access;
}

}  // namespace kolvan::profiler
