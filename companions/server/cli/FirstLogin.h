#pragma once

#include "companions/server/accounts/Logins.h"

#include <string>

namespace kolvan::server {

/// What to tell whoever starts a server on which nobody has an account yet: a link with a code that
/// works once, for a day. Empty when there is a user.
/// @param url how the server is reached, without a slash at the end
std::string firstLoginText(Logins& logins, const std::string& url);

}  // namespace kolvan::server
