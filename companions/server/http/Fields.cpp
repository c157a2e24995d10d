#include "companions/server/http/Fields.h"

#include <algorithm>

namespace kolvan::server::http {
namespace {

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character | 0x20) : character;
}

}  // namespace

std::optional<std::string_view> findField(const Fields& fields, std::string_view name) {
    for (const auto& [fieldName, value] : fields) {
        if (equalIgnoringCase(fieldName, name)) {
            return value;
        }
    }
    return std::nullopt;
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char one, char other) { return lower(one) == lower(other); });
}

}  // namespace kolvan::server::http
