#pragma once

#include "companions/client/Api.h"
#include "companions/client/Options.h"

namespace kolvan::client {

/// Makes a collection, shows on standard error how far it is, and at the end what it found. Ctrl-C
/// cancels it; a second one leaves it to the server.
/// @return exit code: 0, or 1 for a collection that was cancelled
/// @throws Failure also when the collection has failed
int profile(const Options& options, Api& api, HttpClient& forCancels);

}  // namespace kolvan::client
