#include "companions/profiler/machine/Machine.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/engine/ProcessorRings.h"
#include "companions/profiler/engine/SamplingRights.h"
#include "companions/profiler/engine/Tasks.h"
#include "companions/profiler/engine/TracingTrial.h"
#include "companions/profiler/machine/Access.h"
#include "companions/profiler/objects/DebugFile.h"
#include "companions/profiler/objects/ElfObject.h"
#include "companions/profiler/symbols/KernelSymbols.h"

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

bool libraryHasDebugFile() {
    for (const CodeMapping& mapping : codeMappingsOf(::getpid())) {
        if (mapping.path.find("/libc.so") != std::string::npos) {
            const auto object =
                ElfObject::open(FileDescriptor(::open(mapping.path.c_str(), O_RDONLY | O_CLOEXEC)),
                                mapping.path, "");
            return object != nullptr && findDebugFile(*object, "") != nullptr;
        }
    }
    return false;
}

}  // namespace

Machine readSettings() {
    Machine machine;
    utsname system{};
    if (::uname(&system) == 0) {
        machine.name = &system.nodename[0];
        machine.kernel = &system.release[0];
    }
    machine.processors = static_cast<std::size_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
    machine.userId = ::geteuid();
    machine.user = userName(machine.userId);
    machine.capabilities = effectiveCapabilities();
    machine.sampling = readSamplingRights();
    machine.ptraceScope = readKernelSetting("yama/ptrace_scope");
    machine.kptrRestrict = readKernelSetting("kptr_restrict");
    return machine;
}

Machine readMachine() {
    Machine machine = readSettings();
    const Trial trial = tryProcess(::getpid());
    machine.samplingError = trial.samplingError;
    machine.samplingInKernelError = trial.samplingInKernelError;
    machine.tracingError = tryTracing();
    machine.kernelNames = KernelSymbols().available();
    try {
        const ProcessorRings rings = openProcessorRings();
        machine.ringBytes = rings.bytes;
        machine.enoughRingBytes = rings.enough;
    } catch (const Failure&) {
        machine.ringBytes = 0;  // which says as much as the failure does
    }
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);  // fails for unknown limits only
    machine.descriptors = limit.rlim_max;
    machine.libraryIsDescribed = libraryHasDebugFile();
    return machine;
}

std::string userName(uid_t user) {
    std::array<char, 4096> text{};
    passwd entry{};
    passwd* found = nullptr;
    const bool known =
        ::getpwuid_r(user, &entry, text.data(), text.size(), &found) == 0 && found != nullptr;
    return known ? entry.pw_name : std::to_string(user);
}

}  // namespace kolvan::profiler
