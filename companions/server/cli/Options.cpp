#include "companions/server/cli/Options.h"

#include "companions/server/store/Names.h"

#include <CLI/CLI.hpp>

#include <stdexcept>
#include <vector>

namespace kolvan::server {

namespace {

constexpr char kPurpose[] =
    "The profiling server: agents on machines connect to it, people and programs tell it what to "
    "profile. Without a command it serves. Commands work on the data directory, also while a "
    "server "
    "runs on it.";

constexpr char kFooter[] =
    "Every option may stand in the configuration file, as a line such as\n"
    "  listen = \"127.0.0.1:8470\"\n"
    "\n"
    "Exit status: 0 done, 1 something failed, 2 wrong use.";

template <Named Value>
CLI::IsMember oneOf() {
    const auto& names = Names<Value>::words;
    const std::vector<std::string> words(names.begin(), names.end());
    return CLI::IsMember(words);
}

/// The commands' arguments as they are written, until it is known which command it is.
struct Arguments {
    std::string name;
    std::string userRole;
    std::string tokenRole = std::string(nameOf(Role::Engineer));
    std::string architecture;
    std::string file;
    bool passwordFromInput = false;
    bool shared = false;
};

/// The commands, and for each what it makes of the arguments.
class Commands {
public:
    Commands(CLI::App& ownApp, Arguments& ownArguments) : app(ownApp), arguments(ownArguments) {
        addUserCommands();
        addTokenCommands();
        addAgentTokenCommands();
        addFileCommands();
    }

    Command chosen() const {
        for (const auto& [subcommand, make] : makers) {
            if (subcommand->parsed()) {
                return make();
            }
        }
        return Serve{};
    }

private:
    CLI::App& group(const char* name, const char* description) {
        CLI::App& made = *app.add_subcommand(name, description);
        made.require_subcommand(1);
        return made;
    }

    template <typename Make>
    CLI::App& command(CLI::App& parent, const char* name, const char* description, Make make) {
        CLI::App* const made = parent.add_subcommand(name, description);
        makers.emplace_back(made, make);
        return *made;
    }

    void name(CLI::App& of, const char* description) {
        of.add_option("NAME", arguments.name, description)->required()->type_name("");
    }

    void passwordFromInput(CLI::App& of) {
        of.add_flag("--password-stdin", arguments.passwordFromInput,
                    "read the password from standard input, also when that is a terminal");
    }

    void addUserCommands() {
        CLI::App& user = group("user", "who may log in");
        CLI::App& add = command(user, "add", "add a user; asks for the password", [&] {
            return AddUser{arguments.name, valueOf<Role>(arguments.userRole).value(),
                           arguments.passwordFromInput};
        });
        name(add, "of the user");
        add.add_option("--role", arguments.userRole, "what the user may")
            ->required()
            ->check(oneOf<Role>());
        passwordFromInput(add);
        CLI::App& password =
            command(user, "password", "give a user a new password, which ends the sessions", [&] {
                return SetPassword{arguments.name, arguments.passwordFromInput};
            });
        name(password, "of the user");
        passwordFromInput(password);
        name(command(user, "remove", "remove a user", [&] { return RemoveUser{arguments.name}; }),
             "of the user");
        command(user, "list", "list the users", [] { return ListUsers{}; });
    }

    void addTokenCommands() {
        CLI::App& token = group("token", "tokens with which programs use the API");
        CLI::App& add = command(token, "add", "make a token and print it, this once", [&] {
            return AddToken{arguments.name, valueOf<Role>(arguments.tokenRole).value()};
        });
        name(add, "by which it is known");
        add.add_option("--role", arguments.tokenRole, "what it allows")
            ->check(oneOf<Role>())
            ->capture_default_str();
        name(command(token, "revoke", "end a token's right",
                     [&] { return RevokeToken{arguments.name}; }),
             "of the token");
        command(token, "list", "list the tokens", [] { return ListTokens{}; });
    }

    void addAgentTokenCommands() {
        CLI::App& token = group("agent-token", "tokens with which agents connect");
        CLI::App& add = command(token, "add", "make a token and print it, this once", [&] {
            return AddAgentToken{arguments.name, arguments.shared};
        });
        name(add, "by which the agent is known");
        add.add_flag("--shared", arguments.shared,
                     "for many machines, which are known by their host names");
        name(command(token, "revoke", "end a token's right",
                     [&] { return RevokeAgentToken{arguments.name}; }),
             "of the token");
        command(token, "list", "list the tokens", [] { return ListAgentTokens{}; });
    }

    void addFileCommands() {
        CLI::App& package = group("package", "collectors for agents to install");
        CLI::App& add =
            command(package, "add", "put an archive in the place of the one before", [&] {
                return AddPackage{valueOf<PackageArchitecture>(arguments.architecture).value(),
                                  arguments.file};
            });
        add.add_option("ARCHITECTURE", arguments.architecture, "for which agents ask separately")
            ->required()
            ->check(oneOf<PackageArchitecture>());
        add.add_option("ARCHIVE", arguments.file, "whose file name agents ask for")
            ->required()
            ->type_name("");
        command(package, "list", "list the packages", [] { return ListPackages{}; });
        command(app, "backup", "copy what the store keeps into a new file",
                [&] { return BackUp{arguments.file}; })
            .add_option("FILE", arguments.file, "which must not be there yet")
            ->required()
            ->type_name("");
    }

    CLI::App& app;
    Arguments& arguments;
    std::vector<std::pair<CLI::App*, std::function<Command()>>> makers;
};

void checkPublicUrl(std::string& url) {
    if (url.empty()) {
        return;
    }
    while (url.back() == '/') {
        url.pop_back();
    }
    const std::string_view view = url;
    if (!(view.starts_with("http://") || view.starts_with("https://")) || view.back() == ':') {
        throw std::invalid_argument("--public-url: '" + url +
                                    "' does not begin with http:// or https:// and a name");
    }
}

}  // namespace

void checkEncryption(const Options& options, const ListenAddress& listen) {
    if (options.certificate.empty() && !options.withoutTls && !listen.isLoopback()) {
        throw std::invalid_argument(
            "Listening on " + listen.address +
            " without TLS shows passwords, tokens and profiles to whoever is in between: give "
            "--certificate and --key, or say --without-tls when something in front speaks TLS");
    }
}

Options readOptions(int argc, const char* const* argv) {
    Options options;
    Arguments arguments;
    std::string listen;
    CLI::App app(kPurpose, "kolvan-server");
    app.require_subcommand(0, 1);
    app.fallthrough();  // the options may also stand behind a command
    app.set_config("--config", "", "read options from this file")->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_option("--data", options.data,
                   "where everything is kept (without: kolvan-server below the user's state "
                   "directory)")
        ->type_name("DIRECTORY");
    app.add_option("--listen", listen,
                   "where to listen (without: 127.0.0.1:8470; port 0: the system's choice)")
        ->type_name("ADDRESS:PORT");
    app.add_option("--certificate", options.certificate,
                   "speak TLS with this certificate chain, in PEM form,")
        ->type_name("FILE");
    app.add_option("--key", options.key, "and this private key")->type_name("FILE");
    app.add_option("--public-url", options.publicUrl,
                   "how people and agents reach the server, when not as it listens")
        ->type_name("URL");
    app.add_flag("--without-tls", options.withoutTls,
                 "listen to other machines without TLS: whoever is in between reads everything");
    app.set_version_flag("--version", "kolvan-server " KOLVAN_VERSION);
    const Commands commands(app, arguments);
    app.footer(kFooter);  // after the commands, which would inherit it
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        // Without a command, all of them are shown with what they take.
        const bool all = app.get_subcommands().empty();
        options.command =
            ShowText{app.help("", all ? CLI::AppFormatMode::All : CLI::AppFormatMode::Normal)};
        return options;
    } catch (const CLI::CallForVersion& version) {
        options.command = ShowText{std::string(version.what()) + "\n"};
        return options;
    } catch (const CLI::ParseError& error) {
        throw std::invalid_argument(error.what());
    }
    if (!listen.empty()) {
        const ListenAddress read = readListenAddress(listen);
        options.address = read.address;
        options.port = read.port;
    }
    if (options.certificate.empty() != options.key.empty()) {
        throw std::invalid_argument("--certificate and --key go together");
    }
    checkEncryption(options, {options.address, options.port});
    checkPublicUrl(options.publicUrl);
    options.command = commands.chosen();
    return options;
}

}  // namespace kolvan::server
