#pragma once

#include <stdexcept>

namespace kolvan::server::profiles {

/// A file is no profile, or one that is beyond what we take. Its text is a sentence for the user.
struct UnreadableProfile : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace kolvan::server::profiles
