#include "companions/server/cli/FirstLogin.h"

namespace kolvan::server {

std::string firstLoginText(Logins& logins, const std::string& url) {
    const auto code = logins.makeFirstLoginCode();
    if (!code) {
        return "";
    }
    // Behind "#" it stays in the browser: no log of a proxy has it.
    return "Nobody has an account yet. This link makes the first one, an administrator's; it works "
           "once,\n"
           "for a day:\n"
           "  " +
           url + "/first-login#" + *code + "\n";
}

}  // namespace kolvan::server
