#include "companions/client/Settings.h"

#include "basekit2/UniqueFd.h"
#include "companions/client/Failure.h"
#include "companions/client/Json.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::client {

namespace {

namespace fs = std::filesystem;

constexpr char kHowToLogIn[] =
    "; \"kolvan login URL\" keeps both, or set KOLVAN_SERVER and KOLVAN_TOKEN.";

std::string environment(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread
    return value != nullptr ? value : "";
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The first line of a text, which is a token. A line feed in a header would begin another header.
std::string tokenIn(std::string_view text, const std::string& place) {
    std::string token(text.substr(0, text.find_first_of("\r\n")));
    const bool plain =
        std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c < '\x7F'; });
    if (token.empty() || !plain) {
        throw Failure("There is no token in " + place + ".");
    }
    return token;
}

Settings keptSettings() {
    std::error_code error;
    const fs::path path = settingsFile();
    if (!fs::exists(path, error)) {
        return {};
    }
    try {
        const Json document = parseJson(contentOf(path));
        return {textOf(document, "server"), textOf(document, "token")};
    } catch (const Failure&) {
        throw Failure("The file " + path.string() +
                      " is damaged; \"kolvan login URL\" makes it anew.");
    }
}

void writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "write");
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
}

}  // namespace

Settings findSettings(const std::string& serverOption, const std::string& tokenFileOption) {
    Settings settings{serverOption, {}};
    if (settings.server.empty()) {
        settings.server = environment("KOLVAN_SERVER");
    }
    if (!tokenFileOption.empty()) {
        settings.token = tokenIn(contentOf(tokenFileOption), tokenFileOption);
    } else if (const std::string token = environment("KOLVAN_TOKEN"); !token.empty()) {
        settings.token = tokenIn(token, "KOLVAN_TOKEN");
    }
    if (settings.server.empty() || settings.token.empty()) {
        const Settings kept = keptSettings();
        if (settings.server.empty()) {
            settings.server = kept.server;
        }
        if (settings.server.empty()) {
            throw Failure(std::string("No server is known") + kHowToLogIn);
        }
        if (settings.token.empty() && checkedAddress(settings.server) == kept.server) {
            settings.token = kept.token;
        }
    }
    settings.server = checkedAddress(settings.server);
    if (settings.token.empty()) {
        throw Failure("No token for " + settings.server + " is known" + kHowToLogIn);
    }
    return settings;
}

std::string checkedAddress(std::string address) {
    address.erase(address.find_last_not_of('/') + 1);
    const bool known = address.starts_with("https://") || address.starts_with("http://");
    const bool plain = address.find_first_of(" ?#@\\\r\n\t") == std::string::npos;
    if (!known || !plain || address.ends_with(':')) {
        throw Failure("'" + address +
                      "' is no address of a server, such as https://profiling.example.com:8443.");
    }
    return address;
}

fs::path settingsFile() {
    if (const std::string directory = environment("XDG_CONFIG_HOME"); directory.starts_with('/')) {
        return fs::path(directory) / "kolvan/config.json";
    }
    const std::string home = environment("HOME");
    if (home.empty()) {
        throw Failure("The environment has no HOME, where the configuration would be.");
    }
    return fs::path(home) / ".config/kolvan/config.json";
}

void keepSettings(const Settings& settings) {
    const fs::path path = settingsFile();
    const fs::path directory = path.parent_path();
    fs::create_directories(directory.parent_path());
    if (::mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), directory.string());
    }
    JsonObject object;
    object.set("server", settings.server);
    object.set("token", settings.token);
    // A new file in place of the old one: that may be readable by others, and stays whole if this
    // fails.
    std::string temporary = path.string() + ".XXXXXX";
    const basekit2::UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (!file) {
        throw std::system_error(errno, std::generic_category(), temporary);
    }
    try {
        writeAll(file.get(), jsonText(object.value()));
        fs::rename(temporary, path);
    } catch (...) {  // thrown on
        std::error_code error;
        fs::remove(temporary, error);  // the first error is the one to tell
        throw;
    }
}

}  // namespace kolvan::client
