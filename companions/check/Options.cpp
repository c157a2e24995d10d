#include "companions/check/Options.h"

#include <CLI/CLI.hpp>

#include <limits>
#include <stdexcept>

namespace kolvan::check {

namespace {

constexpr int kLongestPatience = 3600;

constexpr char kPurpose[] =
    "Says what is wrong with the set-up of kolvan-agent, and what may surprise. Run it as the "
    "agent's user, with the agent's environment and limits.";

constexpr char kExitCodes[] =
    "Exit status: 0 no error was found (there may be warnings), 1 there is an error, 2 wrong "
    "use, or impossible to look. With --alive: 0 alive, 1 alone, 2 no such process, or "
    "impossible to look.";

}  // namespace

Options readOptions(int argc, const char* const* argv) {
    Options options;
    int seconds = 0;
    pid_t process = 0;
    CLI::App app(kPurpose, "kolvan-agent-check");
    app.footer(kExitCodes);
    app.add_option("DIRECTORY", options.directory,
                   "the agent's directory (without: the installed agent's)")
        ->type_name("");
    app.add_option("--config", options.configurationFile, "a configuration file, whatever its name")
        ->type_name("FILE");
    app.add_flag("--connect", options.connect, "also try to reach the server");
    auto* const alive =
        app.add_option("--alive", process, "only tell whether this agent still has its server")
            ->type_name("PID")
            ->check(CLI::Range(1, std::numeric_limits<pid_t>::max()).description(""));
    auto* const patience =
        app.add_option("--seconds", seconds,
                       "how long to watch (--alive; 10) or to wait for the server (--connect; 15)")
            ->type_name("N")
            ->check(CLI::Range(1, kLongestPatience).description(""));
    app.add_flag("--json", options.json, "report as JSON");
    app.add_flag("--version", options.version, "tell the versions of this program and the agent");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        options.help = app.help();
        return options;
    } catch (const CLI::ParseError& error) {
        throw std::invalid_argument(error.what());
    }
    const bool two = !options.directory.empty() && !options.configurationFile.empty();
    const bool one = !options.directory.empty() || !options.configurationFile.empty();
    if (two || (*alive && (one || options.connect))) {
        throw std::invalid_argument(two ? "DIRECTORY and --config exclude each other"
                                        : "--alive goes with --seconds and --json only");
    }
    if (*alive) {
        options.alive = process;
    }
    if (*patience) {
        options.patience = std::chrono::seconds(seconds);
    }
    return options;
}

}  // namespace kolvan::check
