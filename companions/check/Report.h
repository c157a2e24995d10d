#pragma once

#include "companions/check/Alive.h"
#include "companions/check/Finding.h"

#include <string>

namespace kolvan::check {

/// One line for each finding and one that counts them.
std::string plainReport(const Findings& findings);

/// One JSON object:
/// {"findings":[{"severity":"error","topic":"...","subject":"...","line":1,"column":1,"text":"..."}],
/// "errors":1,"warnings":0}. "line" and "column" stand only where there are any.
std::string jsonReport(const Findings& findings);

/// 1 when there is an error among the findings, otherwise 0.
int exitCodeFor(const Findings& findings);

/// One line about an agent.
/// @param server the address that its configuration names; empty: unknown
std::string plainReport(pid_t process, const std::string& server, const AliveAnswer& answer);

/// One JSON object:
/// {"process":1,"alive":true,"reason":"connection","server":"...","text":"..."}. "server" stands
/// only where it is known.
std::string jsonReport(pid_t process, const std::string& server, const AliveAnswer& answer);

}  // namespace kolvan::check
