#include "companions/client/Options.h"

#include "companions/client/Failure.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string_view>

namespace kolvan::client {

namespace {

constexpr std::int64_t kLargestPid = 4'194'304;  // the kernel's own limit
constexpr std::size_t kMostItems = 10'000;

void addFilter(CLI::App& command, Options& options) {
    command.add_option("--thread", options.thread, "only this thread")
        ->type_name("ID")
        ->check(CLI::Number.description(""));
    command.add_option("--from", options.from, "only from this time on, in milliseconds")
        ->type_name("MS")
        ->check(CLI::NonNegativeNumber.description(""));
    command.add_option("--to", options.to, "only before this time, in milliseconds")
        ->type_name("MS")
        ->check(CLI::NonNegativeNumber.description(""));
    command.add_option("--sample-type", options.sampleType, "what to count: samples, cpu, wait")
        ->type_name("NAME");
}

void addCount(CLI::App& command, Options& options, const char* what) {
    command.add_option("-n,--count", options.count, what)
        ->type_name("N")
        ->capture_default_str()
        ->check(CLI::Range(std::size_t{1}, kMostItems).description(""));
}

void addId(CLI::App& command, Options& options) {
    command.add_option("COLLECTION", options.id, "id of the collection")->required()->type_name("");
}

void addAgent(CLI::App& command, Options& options) {
    command.add_option("HOST", options.agent, "name, host name or id of the agent")
        ->required()
        ->type_name("");
}

class CommandLine {
public:
    explicit CommandLine(Options& readOptions) : options(readOptions) {
        app.set_help_all_flag("--help-all", "show the options of all commands");
        app.require_subcommand(1);
        app.fallthrough();
        app.add_option("--server", options.server, "address of the server (or: KOLVAN_SERVER)")
            ->type_name("URL");
        app.add_option("--token-file", options.tokenFile,
                       "file with the access token (or: KOLVAN_TOKEN has the token)")
            ->type_name("FILE");
        app.add_option("--ca", options.authorityFile,
                       "certificates of the authorities to trust instead of the system's, in PEM "
                       "(or: KOLVAN_CA)")
            ->type_name("FILE");
        app.add_flag("--json", options.json, "print JSON");

        add("login", "ask for a token and keep it with the server's address",
            Options::Command::Login)
            .add_option("URL", options.address, "address of the server")
            ->required()
            ->type_name("");
        add("agents", "list the agents", Options::Command::Agents);
        addAgent(
            add("processes", "show what can be profiled on a machine", Options::Command::Processes),
            options);
        addProfile();
        addCollections();
        addId(add("show", "show a collection", Options::Command::Show), options);
        CLI::App& top = add("top", "show the functions that cost most", Options::Command::Top);
        addId(top, options);
        addFilter(top, options);
        addCount(top, options, "how many functions");
        CLI::App& compare = add("compare", "compare two profiles", Options::Command::Compare);
        compare.add_option("BASE", options.id, "id of a collection")->required()->type_name("");
        compare.add_option("OTHER", options.other, "id of another one")->required()->type_name("");
        addFilter(compare, options);
        addCount(compare, options, "how many functions");
        addGet();
        addId(add("cancel", "end a collection as cancelled", Options::Command::Cancel), options);
        addAgentTokens();
    }

    void parse(std::vector<std::string> arguments) {
        std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants them
        try {
            app.parse(arguments);
        } catch (const CLI::CallForHelp&) {
            options.text = app.help();
            return;
        } catch (const CLI::CallForAllHelp&) {
            options.text = app.help("", CLI::AppFormatMode::All);
            return;
        } catch (const CLI::ParseError& error) {
            throw UsageError(error.what());
        }
        options.command = command;
    }

private:
    CLI::App& add(const char* name, const char* what, Options::Command chosen) {
        return add(app, name, what, chosen);
    }

    CLI::App& add(CLI::App& parent, const char* name, const char* what, Options::Command chosen) {
        CLI::App& added = *parent.add_subcommand(name, what);
        added.callback([this, chosen] { command = chosen; });
        return added;
    }

    void addProfile() {
        CLI::App& profile = add("profile", "profile a process, or a command that is started for it",
                                Options::Command::Profile);
        addAgent(profile, options);
        profile.add_option("--pid", options.pid, "the process")
            ->type_name("N")
            ->check(CLI::Range(std::int64_t{1}, kLargestPid).description(""));
        profile
            .add_option("--duration", options.durationSeconds,
                        "seconds; without, until the target ends or Ctrl-C")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.001, 1e6).description(""));
        profile.add_option("--frequency", options.frequency, "looks a second")
            ->type_name("N")
            ->capture_default_str()
            ->check(CLI::Range(1, 10'000).description(""));
        profile.add_option("--profile", options.kind, "what to measure: cpu, wait or none")
            ->type_name("KIND")
            ->capture_default_str()
            ->check(CLI::IsMember({"cpu", "wait", "none"}).description(""));
        profile.add_flag_callback(
            "--no-children", [this] { options.children = false; },
            "leave out what the target starts");
        profile.add_option("--name", options.name, "name of the collection")->type_name("TEXT");
        profile.add_option("-o,--output", options.file, "also keep the profile in this file")
            ->type_name("FILE");
        addCount(profile, options, "how many functions to show at the end");
        profile.footer(
            "  --command PROGRAM ARGUMENT...\n"
            "                              the command; everything behind belongs to it");
    }

    void addCollections() {
        CLI::App& collections =
            add("collections", "list collections, newest first", Options::Command::Collections);
        collections.add_option("--agent", options.agent, "only those of this agent")
            ->type_name("HOST");
        collections.add_option("--state", options.state, "only those in this state")
            ->type_name("STATE")
            ->check(CLI::IsMember({"waiting", "running", "stopping", "done", "failed", "cancelled"})
                        .description(""));
        addCount(collections, options, "how many");
    }

    void addGet() {
        CLI::App& get = add("get", "get the profile of a collection", Options::Command::Get);
        addId(get, options);
        addFilter(get, options);
        get.add_option("--format", options.format,
                       "pprof, speedscope, collapsed or flamegraph; pprof is always whole")
            ->type_name("NAME")
            ->capture_default_str()
            ->check(
                CLI::IsMember({"pprof", "speedscope", "collapsed", "flamegraph"}).description(""));
        get.add_option("-o,--output", options.file, "file to write to (without: standard output)")
            ->type_name("FILE");
    }

    void addAgentTokens() {
        CLI::App& tokens =
            *app.add_subcommand("agent-token", "tokens with which agents connect to the server");
        tokens.require_subcommand(1);
        CLI::App& made = add(tokens, "add", "make a token and print it, this once",
                             Options::Command::AddAgentToken);
        made.add_option("NAME", options.name, "by which the agent is known")
            ->required()
            ->type_name("");
        made.add_flag("--shared", options.shared,
                      "for many machines, which are known by their host names");
        add(tokens, "list", "list the tokens", Options::Command::ListAgentTokens);
        add(tokens, "revoke", "end a token's right", Options::Command::RevokeAgentToken)
            .add_option("NAME", options.name, "of the token")
            ->required()
            ->type_name("");
    }

    Options& options;
    Options::Command command = Options::Command::Help;
    CLI::App app{"The command line of kolvan-server: profiles programs on other machines.",
                 "kolvan"};
};

void check(const Options& options) {
    if (options.command == Options::Command::Profile &&
        options.pid.has_value() == !options.program.empty()) {
        throw UsageError("profile takes either --pid or --command");
    }
    if (options.command != Options::Command::Profile && !options.program.empty()) {
        throw UsageError("--command goes with profile only");
    }
}

}  // namespace

Options readOptions(int argc, const char* const* argv) {
    Options options;
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto separator = std::find(arguments.begin(), arguments.end(), "--command");
    if (separator != arguments.end()) {
        options.program.assign(separator + 1, arguments.end());
        if (options.program.empty()) {
            throw UsageError("--command: the command is missing");
        }
        arguments.erase(separator, arguments.end());
    }
    CommandLine(options).parse(std::move(arguments));
    check(options);
    return options;
}

}  // namespace kolvan::client
