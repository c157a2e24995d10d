#include "companions/server/profiles/Refusals.h"

#include "companions/server/profiles/UnreadableProfile.h"

namespace kolvan::server::profiles {

void refuseTooMany(std::uint64_t most, const std::string& what) {
    throw UnreadableProfile("The profile is too large: it has more than " + std::to_string(most) +
                            " " + what + ".");
}

void refuseDangling(const std::string& what) {
    throw UnreadableProfile("The profile is damaged: it names a " + what +
                            " that it does not have.");
}

void bound(std::size_t count, std::size_t most, const char* what) {
    if (count >= most) {
        refuseTooMany(most, what);
    }
}

}  // namespace kolvan::server::profiles
