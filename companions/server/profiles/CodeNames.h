#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kolvan::server::profiles {

/// Names for code that a profile has none for.
///
/// Threads: any member from any thread.
class CodeNames {
public:
    virtual ~CodeNames() = default;

    /// What is known of a file at present: a text that changes with it, and is empty when nothing
    /// is known.
    /// @param buildId in lower-case hexadecimal digits, or whatever a profile says it is
    virtual std::string stampOf(const std::string& buildId) const = 0;

    /// Names the functions at addresses of a file.
    /// @param addresses as the file itself counts them, ascending
    /// @return a name for each; empty where none is known
    virtual std::vector<std::string> namesAt(const std::string& buildId,
                                             std::span<const std::uint64_t> addresses) const = 0;
};

/// Knows no names.
class NoCodeNames final : public CodeNames {
public:
    std::string stampOf(const std::string& /*buildId*/) const override { return {}; }
    std::vector<std::string> namesAt(const std::string& /*buildId*/,
                                     std::span<const std::uint64_t> addresses) const override {
        return std::vector<std::string>(addresses.size());
    }
};

}  // namespace kolvan::server::profiles
