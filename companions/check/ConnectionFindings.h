#pragma once

#include "companions/check/Environment.h"
#include "companions/check/Finding.h"
#include "server/AgentConfiguration.h"

#include <chrono>

namespace kolvan::check {

/// Tries the way to the server step by step (name, proxy, TCP, TLS, the endpoint for messages), and
/// tells what each step has come to. The server is asked without token and identity, so that it
/// sees no agent. Blocks for `patience` at most where nobody answers, twice where TLS fails.
Findings examineConnection(const cagnt1::AgentConfiguration& configuration,
                           const Environment& environment, std::chrono::seconds patience);

}  // namespace kolvan::check
