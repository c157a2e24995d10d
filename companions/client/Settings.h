#pragma once

#include <filesystem>
#include <string>

namespace kolvan::client {

/// Which server to speak to, and with which right.
struct Settings {
    std::string server;  ///< its address, without a slash at the end
    std::string token;
};

/// Takes the server's address, and the token, each from the first place that has it: the option,
/// the environment (KOLVAN_SERVER, KOLVAN_TOKEN), what `kolvan login` has kept. A token that was
/// kept is sent to the server it was kept for, and to no other.
/// @throws Failure with a sentence that says what is missing
Settings findSettings(const std::string& serverOption, const std::string& tokenFileOption);

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
