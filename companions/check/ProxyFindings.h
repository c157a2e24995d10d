#pragma once

#include "companions/check/Endpoint.h"
#include "companions/check/Environment.h"
#include "companions/check/Finding.h"

#include <optional>
#include <string>

namespace kolvan::check {

/// A variable that sends requests through a proxy.
struct ProxyChoice {
    std::string variable;
    std::string address;
};

/// The proxy through which the transport library goes to a server, by the rules of its
/// documentation, except that no_proxy is not understood where it holds networks (10.0.0.0/8).
std::optional<ProxyChoice> chooseProxy(const Endpoint& endpoint, const Environment& environment);

/// Tells which proxy the environment sets for the server, and which variable it does not obey.
Findings examineProxy(const Endpoint& endpoint, const Environment& environment);

}  // namespace kolvan::check
