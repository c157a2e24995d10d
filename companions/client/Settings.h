#pragma once

#include <filesystem>
#include <string>

namespace kolvan::client {

/// Which server to speak to, and with which right.
struct Settings {
    std::string server;  ///< its address, without a slash at the end
    std::string token;
    std::string authorityFile;  ///< see `HttpClient`; empty: the system's
};

/// What the options say of the settings; empty where they say nothing.
struct SettingsOptions {
    std::string server;
    std::string tokenFile;
    std::string authorityFile;
};

/// Takes the server's address, the token and the file of authorities, each from the first place
/// that has it: the option, the environment (KOLVAN_SERVER, KOLVAN_TOKEN, KOLVAN_CA), what `kolvan
/// login` has kept. A token or an authority that was kept is for the server it was kept for, and
/// for no other; where server and token are given, nothing that was kept counts.
/// @throws Failure with a sentence that says what is missing
Settings findSettings(const SettingsOptions& given);

/// The file of authorities for a login: from the option or the environment. As an absolute path,
/// which is the same file wherever `kolvan` is called later.
std::string authorityFileFor(const std::string& option);

/// Checks an address, and takes the slashes at its end away.
/// @throws Failure
std::string checkedAddress(std::string address);

/// Keeps settings in `settingsFile()`, readable by this user alone.
/// @throws std::system_error
void keepSettings(const Settings& settings);

/// $XDG_CONFIG_HOME/kolvan/config.json, or ~/.config/kolvan/config.json.
/// @throws Failure when there is no home directory
std::filesystem::path settingsFile();

}  // namespace kolvan::client
