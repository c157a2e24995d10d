#pragma once

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

}  // namespace kolvan::check
