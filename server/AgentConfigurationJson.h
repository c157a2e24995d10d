#pragma once

#include "server/AgentConfiguration.h"

#include <string>

namespace cagnt1 {

/// Reads the configuration file's text. It never fails: text that is not one strict JSON object
/// (RFC 8259, encoding not checked) gives empty settings. A setting is also empty when its key is
/// missing or its value is not a string. If a key occurs more than once, the first one counts. The
/// text and every value end at their first NUL.
AgentConfiguration parseConfiguration(const std::string& jsonText);

/// Writes all six settings as a JSON object without white space, in the record's order, with the
/// escapes of `messageToJson`.
std::string serializeConfiguration(const AgentConfiguration& configuration);

}  // namespace cagnt1
