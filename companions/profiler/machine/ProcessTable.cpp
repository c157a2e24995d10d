#include "companions/profiler/machine/ProcessTable.h"

#include "companions/profiler/machine/TextLayout.h"
#include "companions/profiler/output/TextEscape.h"

#include <algorithm>
#include <string_view>

namespace kolvan::profiler {

namespace {

constexpr std::size_t kPidWidth = 7;
constexpr std::size_t kWidestUser = 12;
constexpr std::size_t kCpuWidth = 7;
constexpr std::size_t kThreadsWidth = 7;
constexpr std::size_t kProfileWidth = 9;
constexpr std::size_t kNarrowestCommand = 20;
constexpr std::size_t kWidestNote = 100;  // longer lines are hard to read

constexpr std::string_view kGap = "  ";

std::string wordOf(Access::Engine engine) {
    switch (engine) {
        case Access::Engine::Perf:
            return "yes";
        case Access::Engine::Ptrace:
            return "stops";
        case Access::Engine::None:
            break;
    }
    return "no";
}

/// What is missing, each text once, by the number under which the table speaks of it.
class Notes {
public:
    /// @return " (1)", or nothing where nothing is missing
    std::string markFor(const Access& access) {
        if (access.reason.empty()) {
            return "";
        }
        const std::string note = access.reason + ". What helps: " + access.help + ".";
        const auto known = std::find(notes.begin(), notes.end(), note);
        const auto number = static_cast<std::size_t>(known - notes.begin()) + 1;
        if (known == notes.end()) {
            notes.push_back(note);
        }
        return " (" + std::to_string(number) + ")";
    }

    std::string text(std::size_t width) const {
        std::string lines;
        for (std::size_t i = 0; i < notes.size(); ++i) {
            lines += wrapped(notes[i], " (" + std::to_string(i + 1) + ") ", width);
        }
        return lines;
    }

private:
    std::vector<std::string> notes;
};

std::string userOf(const ProcessEntry& process) {
    return cutInTheMiddle(printable(process.user), kWidestUser);
}

}  // namespace

std::string processTable(const std::vector<ProcessEntry>& processes, std::size_t width) {
    std::size_t userWidth = std::string_view("User").size();
    std::size_t possible = 0;
    for (const ProcessEntry& process : processes) {
        userWidth = std::max(userWidth, characterCount(userOf(process)));
        possible += process.access.engine == Access::Engine::None ? 0U : 1U;
    }
    const auto line = [&](const std::string& pid, const std::string& user, const std::string& cpu,
                          const std::string& threads, const std::string& profile,
                          const std::string& command) {
        std::string text = rightAligned(pid, kPidWidth);
        text.append(kGap).append(leftAligned(user, userWidth));
        text.append(rightAligned(cpu, kCpuWidth)).append(kGap);
        text.append(rightAligned(threads, kThreadsWidth)).append(kGap);
        text.append(leftAligned(profile, kProfileWidth)).append(kGap);
        return text + command + "\n";
    };
    const std::size_t before = line("", "", "", "", "", "").size() - 1;
    const std::size_t room = std::max(width, before + kNarrowestCommand) - before;
    Notes notes;
    std::string text = line("PID", "User", "CPU %", "Threads", "Profile", "Command");
    for (const ProcessEntry& process : processes) {
        text += line(std::to_string(process.pid), userOf(process), decimalText(process.cpu, 1),
                     std::to_string(process.threads),
                     wordOf(process.access.engine) + notes.markFor(process.access),
                     cutInTheMiddle(printable(process.command), room));
    }
    text += "\n" + std::to_string(processes.size()) + " processes; this user can profile " +
            std::to_string(possible) + " of them.\n";
    return text + notes.text(std::min(width, kWidestNote));
}

}  // namespace kolvan::profiler
