#pragma once

#include "companions/server/base/Sha256.h"

#include <string>
#include <string_view>

namespace kolvan::server {

/// How tokens begin, so that people and scanners of source code recognise what they have found.
inline constexpr std::string_view kApiTokenPrefix = "kst_";
inline constexpr std::string_view kAgentTokenPrefix = "kat_";

/// A secret that was just made: the text for whoever will use it, which is shown once and kept
/// nowhere, and the hash to keep.
///
/// A fast hash is right here, unlike for passwords: there are 2^256 texts to guess, so that no
/// number of guesses a second leads anywhere, and each request of a program or an agent computes
/// one.
struct Secret {
    std::string text;
    Sha256 hash;
};

/// Makes one of 256 random bits: the prefix and 43 characters of A-Z, a-z, 0-9, "-" and "_".
Secret makeSecret(std::string_view prefix = "");

}  // namespace kolvan::server
