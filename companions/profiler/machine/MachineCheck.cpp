#include "companions/profiler/machine/MachineCheck.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/engine/ProcessorRings.h"
#include "companions/profiler/machine/Access.h"
#include "companions/profiler/machine/TextLayout.h"
#include "companions/profiler/output/TextEscape.h"

#include <algorithm>
#include <optional>

#include <linux/capability.h>

namespace kolvan::profiler {

namespace {

using Grade = Finding::Grade;

constexpr std::uint64_t kEnoughThreads = 1000;
constexpr int kScopeOfChildren = 1;  // of yama: what one has started oneself
constexpr std::size_t kWidest = 100;
constexpr std::size_t kGradeWidth = 9;

Cure sysctl(const std::string& settings) {
    return {"sysctl " + settings, "as root; to keep it, in /etc/sysctl.d"};
}

Cure capabilities(const std::string& names) {
    return {"AmbientCapabilities=" + names, "in the unit of a service"};
}

std::string settingText(const std::string& name, const std::optional<int>& value) {
    return value ? " (" + name + " is " + std::to_string(*value) + ")" : "";
}

std::string samplingText(const Machine& machine) {
    return std::string("perf_event_open: ") + errorText(machine.samplingError) +
           paranoidRemark(machine.sampling.paranoid);
}

std::vector<Cure> descriptorCures() {
    return {{"LimitNOFILE=524288", "in the unit of a service"},
            {"USER hard nofile 524288", "in /etc/security/limits.conf"}};
}

std::vector<Cure> samplingCures(const Machine& machine) {
    const Cure pass{"let perf_event_open pass",
                    "where system calls are filtered, as containers do"};
    switch (obstacleOf(machine.samplingError, machine.sampling)) {
        case SamplingObstacle::Level:
            return {sysctl("kernel.perf_event_paranoid=2"), capabilities("CAP_PERFMON")};
        case SamplingObstacle::Filter:
            return {pass};
        case SamplingObstacle::NoEvents:
            return {{"CONFIG_PERF_EVENTS=y", "in the configuration of the kernel"}, pass};
        case SamplingObstacle::Descriptors:
            return descriptorCures();
        case SamplingObstacle::Unknown:
            break;
    }
    return {{"kolvan-trcap --check", "later, as the reason may pass"}};
}

bool isRestrictedByYama(const Machine& machine) {
    return machine.ptraceScope.value_or(0) >= kScopeOfChildren && !machine.has(CAP_SYS_PTRACE);
}

Finding ownProcesses(const Machine& machine) {
    Finding finding{Grade::Good, "Processes of this user", "", {}};
    const std::string scope = settingText("kernel.yama.ptrace_scope", machine.ptraceScope);
    if (machine.samplingError == 0) {
        finding.text = "sampled, 999 times in a second of processor time";
        return finding;
    }
    finding.cures = samplingCures(machine);
    if (machine.tracingError != 0) {
        finding.grade = Grade::Missing;
        finding.text = "none; " + samplingText(machine) +
                       ", ptrace: " + errorText(machine.tracingError) + scope;
    } else if (isRestrictedByYama(machine)) {
        finding.grade = Grade::Missing;
        finding.text = "only commands that kolvan-trcap starts, by stopping them; " +
                       samplingText(machine) + ", others may not be traced" + scope;
        finding.cures.push_back(sysctl("kernel.yama.ptrace_scope=0"));
    } else {
        finding.grade = Grade::Limited;
        finding.text =
            "looked at by stopping them, 100 times a second at most; " + samplingText(machine);
    }
    return finding;
}

Finding otherProcesses(const Machine& machine) {
    const std::string subject = "Processes of other users";
    const bool samples = machine.has(CAP_PERFMON) || machine.has(CAP_SYS_ADMIN);
    if (machine.has(CAP_SYS_PTRACE) && (samples || machine.samplingError != 0)) {
        return {Grade::Good, subject, "the same", {}};
    }
    return {Grade::Limited,
            subject,
            "none",
            {{"sudo kolvan-trcap ...", "as root, or with -u as their user"},
             capabilities("CAP_PERFMON CAP_SYS_PTRACE")}};
}

Finding kernelTime(const Machine& machine) {
    const std::string subject = "Time in the kernel, and where threads wait";
    if (machine.samplingInKernelError == 0) {
        return {Grade::Good, subject, "seen", {}};
    }
    return {Grade::Limited,
            subject,
            "not seen" + paranoidRemark(machine.sampling.paranoid),
            {sysctl("kernel.perf_event_paranoid=1"), capabilities("CAP_PERFMON")}};
}

/// They are shown to everybody where both settings are low enough, else to CAP_SYSLOG.
Finding kernelNames(const Machine& machine) {
    const std::string subject = "Names of the kernel's functions";
    if (machine.kernelNames) {
        return {Grade::Good, subject, "known", {}};
    }
    std::string settings;
    if (machine.kptrRestrict.value_or(0) > 0) {
        settings += " kernel.kptr_restrict=0";
    }
    if (machine.sampling.paranoid.value_or(0) > 1) {
        settings += " kernel.perf_event_paranoid=1";
    }
    Finding finding{
        Grade::Limited,
        subject,
        "not shown to this user" + settingText("kernel.kptr_restrict", machine.kptrRestrict),
        {}};
    if (!settings.empty()) {
        finding.cures.push_back(sysctl(settings.substr(1)));
    }
    if (machine.kptrRestrict.value_or(0) <= 1) {
        finding.cures.push_back(capabilities("CAP_SYSLOG"));
    }
    return finding;
}

Finding memory(const Machine& machine) {
    const std::string subject = "Memory for samples";
    const std::string text = std::to_string(machine.ringBytes / 1024) + " KiB for each processor";
    if (machine.ringBytes >= machine.enoughRingBytes) {
        return {Grade::Good, subject, text, {}};
    }
    return {Grade::Limited,
            subject,
            text + ", so that some may be lost",
            {{"ulimit -l 65536", "as root, in the shell that starts it"},
             {"LimitMEMLOCK=64M", "in the unit of a service"},
             sysctl("kernel.perf_event_mlock_kb=2048")}};
}

Finding descriptors(const Machine& machine) {
    const std::uint64_t threads = descriptorsForEvents(machine.descriptors) / machine.processors;
    const std::string text = std::to_string(machine.descriptors) + ", enough for " +
                             std::to_string(threads) +
                             " threads that run already when their profile begins";
    if (threads >= kEnoughThreads) {
        return {Grade::Good, "Open files", text, {}};
    }
    return {Grade::Limited, "Open files", text, descriptorCures()};
}

Finding debugFiles(const Machine& machine) {
    const std::string subject = "Debug files of libraries";
    if (machine.libraryIsDescribed) {
        return {Grade::Good, subject, "found, for instance of the C library", {}};
    }
    return {Grade::Limited,
            subject,
            "none of the C library, so that of its functions only those have names that programs "
            "can call. They are looked for in /usr/lib/debug/.build-id, beside the library, in "
            ".debug there, and below /usr/lib/debug",
            {{"apt install libc6-dbg", "on Debian; other packages end in -dbgsym"}}};
}

std::string wordOf(Grade grade) {
    switch (grade) {
        case Grade::Good:
            return "good";
        case Grade::Limited:
            return "limited";
        case Grade::Missing:
            break;
    }
    return "missing";
}

/// What to write stays in one line, so that it can be copied.
std::string cureLines(const Cure& cure, bool isFirst, std::size_t width) {
    const std::string margin(kGradeWidth + 2, ' ');
    const std::string line = margin + (isFirst ? "Cure: " : "  or: ") + cure.what;
    const std::string where = "(" + cure.where + ")";
    const bool fits = line.size() + 2 + where.size() <= width;
    return line + (fits ? "  " : "\n" + margin + "      ") + where + "\n";
}

}  // namespace

std::vector<Finding> checkMachine(const Machine& machine) {
    std::vector<Finding> findings{ownProcesses(machine), otherProcesses(machine)};
    if (machine.samplingError == 0) {
        findings.push_back(kernelTime(machine));
        findings.push_back(kernelNames(machine));
        findings.push_back(memory(machine));
        findings.push_back(descriptors(machine));
    }
    findings.push_back(debugFiles(machine));
    return findings;
}

std::string checkText(const Machine& machine, const std::vector<Finding>& findings,
                      std::size_t width) {
    const std::size_t columns = std::min(width, kWidest);
    std::string text =
        wrapped(printable("User " + machine.user + " on " + machine.name + ", Linux " +
                          machine.kernel + ", " + std::to_string(machine.processors) +
                          (machine.processors == 1 ? " processor" : " processors")),
                "", columns) +
        "\n";
    for (const Finding& finding : findings) {
        text += wrapped(finding.subject + ": " + finding.text + ".",
                        "  " + leftAligned(wordOf(finding.grade), kGradeWidth), columns);
        for (const Cure& cure : finding.cures) {
            text += cureLines(cure, &cure == &finding.cures.front(), columns);
        }
    }
    const bool possible = findings.front().grade != Grade::Missing;
    return text + "\nThis user can" + (possible ? "" : "not") + " profile his own processes.\n";
}

}  // namespace kolvan::profiler
