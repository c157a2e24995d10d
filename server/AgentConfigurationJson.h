#pragma once

#include "server/AgentConfiguration.h"

#include <string>

namespace cagnt1 {

/// Reads the configuration file's text. Never fails: text that is not one strict JSON object
/// (RFC 8259, encoding not checked) gives empty settings, as does a key that is missing or whose
/// value is not a string. Of several equal keys the first counts. The text and every value end
/// at their first NUL.
AgentConfiguration parseConfiguration(const std::string& jsonText);

/// Writes all six settings as a JSON object without white space, in the record's order, with the
/// escapes of `messageToJson`.
std::string serializeConfiguration(const AgentConfiguration& configuration);

}  // namespace cagnt1
