#include "companions/server/cli/Run.h"

#include "companions/server/accounts/Tokens.h"
#include "companions/server/accounts/Users.h"
#include "companions/server/base/Clock.h"
#include "companions/server/base/DataDirectory.h"
#include "companions/server/cli/PasswordInput.h"
#include "companions/server/store/Names.h"
#include "companions/server/store/PackageFiles.h"
#include "companions/server/store/SqliteStore.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace kolvan::server {

namespace {

/// The commands on an open data directory, by their type.
class OnData {
public:
    OnData(const DataDirectory& ownData, std::ostream& ownOut, std::ostream& ownNotes)
        : data(ownData), out(ownOut), notes(ownNotes), store(data.database().string(), clock) {}

    void operator()(const AddUser& command) {
        const Passwords passwords;
        Users(store, passwords)
            .add(command.name, command.role,
                 readNewPassword(command.name, command.passwordFromInput), actor);
        notes << "User " << command.name << " (" << nameOf(command.role) << ") was added.\n";
    }

    void operator()(const SetPassword& command) {
        const User user = userNamed(command.name);
        const Passwords passwords;
        report(
            Users(store, passwords)
                .change(user.id, {}, readNewPassword(user.name, command.passwordFromInput), actor),
            command.name);
        notes << "User " << command.name << " has a new password.\n";
    }

    void operator()(const RemoveUser& command) {
        const User user = userNamed(command.name);
        const Passwords passwords;
        report(Users(store, passwords).remove(user.id, actor), command.name);
        notes << "User " << command.name << " was removed.\n";
    }

    void operator()(const ListUsers&) {
        for (const User& user : store.accounts().listUsers()) {
            out << user.name << '\t' << nameOf(user.role) << '\t' << toRfc3339(user.made) << '\n';
        }
    }

    void operator()(const AddToken& command) {
        const auto made = tokens.addApiToken(command.name, command.role, actor);
        out << made.text << '\n';
        notes << "This is the token " << command.name << " (" << nameOf(command.role)
              << "). It is shown this once.\n";
    }

    void operator()(const RevokeToken& command) {
        const ApiToken token = inUse(store.accounts().listTokens(), command.name, "API token");
        (void)tokens.revokeApiToken(token.id, actor);  // somebody else was faster: that is as good
        notes << "The token " << command.name << " opens nothing any more.\n";
    }

    void operator()(const ListTokens&) {
        for (const ApiToken& token : store.accounts().listTokens()) {
            out << token.name << '\t' << nameOf(token.role) << '\t' << toRfc3339(token.made) << '\t'
                << (token.revoked    ? "revoked"
                    : token.lastUsed ? toRfc3339(*token.lastUsed)
                                     : "never")
                << '\n';
        }
    }

    void operator()(const AddAgentToken& command) {
        const auto made = tokens.addAgentToken(command.name, command.shared, actor);
        out << made.text << '\n';
        notes << "This is the \"accessToken\" for "
              << (command.shared ? "agents that share " : "the agent ") << command.name
              << ". It is shown this once.\n";
    }

    void operator()(const RevokeAgentToken& command) {
        const AgentToken token = inUse(store.agents().listTokens(), command.name, "agent token");
        (void)tokens.revokeAgentToken(token.id,
                                      actor);  // somebody else was faster: that is as good
        notes << "The token " << command.name << " opens nothing any more.\n";
    }

    void operator()(const ListAgentTokens&) {
        for (const AgentToken& token : store.agents().listTokens()) {
            out << token.name << '\t' << (token.shared ? "shared" : "own") << '\t'
                << toRfc3339(token.made) << '\t' << (token.revoked ? "revoked" : "valid") << '\n';
        }
    }

    void operator()(const AddPackage& command) {
        const Package package =
            addPackage(store.packages(), data.packages(), command.architecture, command.archive);
        store.audit().append(
            {0, {}, actor.name, actor.address, "package.add", package.name, package.hash.hex()});
        out << package.hash.hex() << "  " << package.name << '\n';
        notes << "Agents that ask for " << package.name << " get this one now.\n";
    }

    void operator()(const ListPackages&) {
        for (const Package& package : store.packages().list()) {
            out << nameOf(package.architecture) << '\t' << package.name << '\t' << package.sizeBytes
                << '\t' << package.hash.hex() << '\n';
        }
    }

    void operator()(const BackUp& command) {
        store.backUp(command.file.string());
        notes << "The store was copied to " << command.file.string()
              << ". Packages and collections' "
              << "files lie in " << data.path().string() << " and are not in it.\n";
    }

    void operator()(const Serve&) {}
    void operator()(const ShowText&) {}

private:
    User userNamed(const std::string& name) {
        const auto found = store.accounts().findUser(name);
        if (!found) {
            throw std::runtime_error("There is no user with the name " + name);
        }
        return *found;
    }

    template <typename Token>
    static Token inUse(const std::vector<Token>& tokens, const std::string& name,
                       const std::string& kind) {
        const auto found = std::find_if(tokens.begin(), tokens.end(), [&](const Token& token) {
            return token.name == name && !token.revoked;
        });
        if (found == tokens.end()) {
            throw std::runtime_error("There is no " + kind + " with the name " + name);
        }
        return *found;
    }

    static void report(UserChange change, const std::string& name) {
        if (change == UserChange::LastAdministrator) {
            throw std::runtime_error("Without " + name + " nobody could add users any more");
        }
        if (change == UserChange::NotFound) {
            throw std::runtime_error("There is no user with the name " + name);
        }
    }

    const DataDirectory& data;
    std::ostream& out;
    std::ostream& notes;
    const SystemClock clock;
    SqliteStore store;
    const Actor actor{"uid " + std::to_string(::getuid()), "local"};
    RefusalLog refusals{store.audit(), clock};
    Tokens tokens{store, clock, refusals};
};

}  // namespace

void runCommand(const Options& options, std::ostream& out, std::ostream& notes) {
    const DataDirectory data(options.data.empty() ? DataDirectory::usualPlace() : options.data);
    std::visit(OnData(data, out, notes), options.command);
}

}  // namespace kolvan::server
