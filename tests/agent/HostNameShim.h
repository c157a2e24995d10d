#pragma once

#include <cstddef>
#include <string>

namespace kolvan::test {

/// Stands in for this machine's `gethostname()` while it lives. One at a time.
class HostNameShim {
public:
    /// Every call gives this name.
    explicit HostNameShim(std::string hostName);

    /// Every call fails with this errno value.
    explicit HostNameShim(int errorNumber);

    ~HostNameShim();

    HostNameShim(const HostNameShim&) = delete;
    HostNameShim& operator=(const HostNameShim&) = delete;

    /// Size of the buffer that the last call has offered.
    std::size_t bufferSize() const;
};

}  // namespace kolvan::test
