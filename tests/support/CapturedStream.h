#pragma once

#include "basekit2/UniqueFd.h"

#include <string>

namespace kolvan::test {

/// Redirects a descriptor of this process (1 or 2) into memory while it lives, so that what our
/// own code and the libraries write to it can be compared.
class CapturedStream {
public:
    explicit CapturedStream(int descriptor);
    ~CapturedStream();

    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;

    /// Everything that has been written so far; what the standard streams still buffer included.
    std::string text() const;

private:
    int redirected;
    basekit2::UniqueFd original;
    basekit2::UniqueFd memory;
};

}  // namespace kolvan::test
