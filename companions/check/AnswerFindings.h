#pragma once

#include "companions/check/Finding.h"
#include "companions/check/Request.h"

namespace kolvan::check {

/// Tells who has answered at the endpoint for messages: a profiling server, or a page, a redirect,
/// an error or a proxy, which the agent would all take for the server's answer.
/// @param throughProxy whether the environment sends requests through a proxy
Finding examineAnswer(const Exchange& exchange, bool throughProxy);

}  // namespace kolvan::check
