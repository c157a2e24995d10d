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
        return {textOf(document, "server"), textOf(document, "token"), textOf(document, "ca")};
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

Settings findSettings(const SettingsOptions& given) {
    Settings settings{given.server, {}, authorityFileFor(given.authorityFile)};
    if (settings.server.empty()) {
        settings.server = environment("KOLVAN_SERVER");
    }
    if (!given.tokenFile.empty()) {
        settings.token = tokenIn(contentOf(given.tokenFile), given.tokenFile);
    } else if (const std::string token = environment("KOLVAN_TOKEN"); !token.empty()) {
        settings.token = tokenIn(token, "KOLVAN_TOKEN");
    }
    // Where nothing is missing it is not read: programs may have no home, or a damaged file there.
    const bool complete = !settings.server.empty() && !settings.token.empty();
    const Settings kept = complete ? Settings() : keptSettings();
    if (settings.server.empty()) {
        settings.server = kept.server;
    }
    if (settings.server.empty()) {
        throw Failure(std::string("No server is known") + kHowToLogIn);
    }
    settings.server = checkedAddress(settings.server);
    if (settings.server == kept.server) {
        settings.token = settings.token.empty() ? kept.token : settings.token;
        settings.authorityFile =
            settings.authorityFile.empty() ? kept.authorityFile : settings.authorityFile;
    }
    if (settings.token.empty()) {
        throw Failure("No token for " + settings.server + " is known" + kHowToLogIn);
    }
    return settings;
}

std::string authorityFileFor(const std::string& option) {
    const std::string file = option.empty() ? environment("KOLVAN_CA") : option;
    return file.empty() ? "" : fs::absolute(file).string();
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
    if (!settings.authorityFile.empty()) {
        object.set("ca", settings.authorityFile);
    }
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
