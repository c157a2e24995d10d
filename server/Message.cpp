#include "server/Message.h"

namespace cagnt1 {

std::string Message::parameter(const std::string& name, const std::string& defaultValue) const {
    const auto position = parameters.find(name);
    return position != parameters.end() ? position->second : defaultValue;
}

Message makeErrorMessage(const std::string& errorText) {
    return {"error", {{"errorMessage", errorText}}};
}

}  // namespace cagnt1
