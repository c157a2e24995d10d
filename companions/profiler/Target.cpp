#include "companions/profiler/Target.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/Tasks.h"

#include <chrono>
#include <cstddef>
#include <utility>
#include <vector>

namespace kolvan::profiler {

namespace {

constexpr std::chrono::milliseconds kCommandGrace{1000};
constexpr std::size_t kLongestName = 300;

std::string shortened(std::string text) {
    if (text.size() > kLongestName) {
        text.resize(kLongestName);
        text += "...";
    }
    return text;
}

std::string joined(const std::vector<std::string>& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : " ") + argument;
    }
    return text;
}

}  // namespace

Target::Target(const Options& options)
    : command(options.command.empty() ? nullptr
                                      : std::make_unique<StartedCommand>(options.command)),
      id(command ? command->id() : options.pid.value()),
      commandLine(shortened(command ? joined(options.command) : commandLineOf(id))),
      probe(id),
      tree(id) {
    if (!command && !probe.read()) {
        throw Failure(ExitCode::NoTarget, "process " + std::to_string(id) + " has already ended");
    }
}

void Target::release() {
    if (command) {
        command->release();
    }
}

std::optional<ProcessReading> Target::read(const std::function<void()>& meanwhile) {
    auto reading = probe.read(meanwhile);
    if (reading) {
        reading->cpuNanoseconds = tree.nanoseconds();
    }
    return reading;
}

std::optional<std::uint64_t> Target::finalCpuNanoseconds() {
    return commandHasEnded() ? std::optional(tree.nanoseconds()) : std::nullopt;
}

std::string Target::endCommand() const {
    return command ? command->terminate(kCommandGrace) : "";
}

}  // namespace kolvan::profiler
