#pragma once

#include <string_view>

namespace kolvan::server {

/// Writes lines for the operator to a descriptor, standard error for instance, where a service
/// manager takes each one with its time.
///
/// Threads: any member from any thread. Lines are not mixed.
class LineLog {
public:
    /// @param ownDescriptor stays open as long as this, and is not closed
    explicit LineLog(int ownDescriptor) : descriptor(ownDescriptor) {}

    /// Writes one line. Characters that would end it, or speak to a terminal, become "?": the text
    /// may hold what strangers have sent. A line that cannot be written is lost.
    void write(std::string_view text) const;

private:
    const int descriptor;
};

}  // namespace kolvan::server
