#pragma once

#include "companions/server/cli/ListenAddress.h"
#include "companions/server/store/Records.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <variant>

namespace kolvan::server {

/// What the command line may ask for. A name is a user's, a token's or an agent's, by the type.
struct ShowText {
    std::string text;  ///< of --help or --version
};
struct Serve {};
struct AddUser {
    std::string name;
    Role role = Role::Viewer;
    bool passwordFromInput = false;  ///< although standard input may be a terminal
};
struct SetPassword {
    std::string name;
    bool passwordFromInput = false;
};
struct RemoveUser {
    std::string name;
};
struct ListUsers {};
struct AddToken {
    std::string name;
    Role role = Role::Engineer;
};
struct RevokeToken {
    std::string name;
};
struct ListTokens {};
struct AddAgentToken {
    std::string name;
    bool shared = false;
};
struct RevokeAgentToken {
    std::string name;
};
struct ListAgentTokens {};
struct AddPackage {
    PackageArchitecture architecture = PackageArchitecture::X64;
    std::filesystem::path archive;
};
struct ListPackages {};
struct BackUp {
    std::filesystem::path file;
};

using Command = std::variant<Serve, ShowText, AddUser, SetPassword, RemoveUser, ListUsers, AddToken,
                             RevokeToken, ListTokens, AddAgentToken, RevokeAgentToken,
                             ListAgentTokens, AddPackage, ListPackages, BackUp>;

/// What the command line asks for, together with the configuration file that it names.
struct Options {
    Command command;
    std::filesystem::path data;  ///< empty: the usual place
    std::string address = "127.0.0.1";
    std::uint16_t port = 8470;          ///< 0: the system's choice
    std::filesystem::path certificate;  ///< both or neither of these two
    std::filesystem::path key;
    bool withoutTls = false;  ///< listen to other machines although nothing is encrypted
    std::string
        publicUrl;  ///< how others reach the server; empty: as it listens. No slash at the end
};

/// Reads the arguments, the program's name first.
/// @throws std::invalid_argument with a sentence for the user
Options readOptions(int argc, const char* const* argv);

/// Refuses to listen where other machines can connect without TLS, unless the options say so.
/// `readOptions` has done it for the address that it was given; a socket that was opened by
/// somebody else may be anywhere.
/// @throws std::invalid_argument with a sentence for the user
void checkEncryption(const Options& options, const ListenAddress& listen);

}  // namespace kolvan::server
