#pragma once

#include <string>
#include <unordered_map>

namespace cagnt1 {

/// What agent and server say to each other: a type and named texts.
struct Message {
    std::string type;
    std::unordered_map<std::string, std::string> parameters;

    /// Value of the parameter `name`, or `defaultValue` when the message has none of that name.
    std::string parameter(const std::string& name, const std::string& defaultValue = {}) const;
};

/// The message by which the agent reports a failure to the server.
Message makeErrorMessage(const std::string& errorText);

}  // namespace cagnt1
