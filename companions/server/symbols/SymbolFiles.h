#pragma once

#include "companions/server/base/IncomingFiles.h"
#include "companions/server/base/UtcTime.h"
#include "companions/server/profiles/CodeNames.h"
#include "companions/server/symbols/SymbolFile.h"

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::symbols {

/// A kept file with the names that a stripped one lacks.
struct Symbols {
    std::string buildId;
    std::string name;  ///< of the file, as whoever uploaded it calls it
    std::uint64_t sizeBytes = 0;
    UtcTime added;
};

/// The files with symbols that people have uploaded, one for each build-id.
///
/// They lie in a directory for each build-id, under their names: the directory is the list, so that
/// nothing can differ from it. A file that was kept survives the end of this process; it is not
/// forced onto the disk.
///
/// Threads: any member from any thread. All of them block on the disk.
class SymbolFiles final : public profiles::CodeNames {
public:
    static constexpr std::size_t kLongestName = 200;  // bytes

    /// Makes the directory when it is missing, and removes what processes before this one have not
    /// received whole.
    explicit SymbolFiles(const std::filesystem::path& filesDirectory);

    /// Whether a text is a build-id as it is written: an even number of lower-case hexadecimal
    /// digits.
    static bool isBuildId(std::string_view text);

    /// Whether a file may have this name: letters, digits and ".-_+@", without a dot in front.
    static bool isName(std::string_view text);

    /// Begins a file.
    /// @pre `isBuildId(buildId)` and `isName(name)`
    /// @throws std::system_error
    IncomingFile begin(const std::string& buildId, const std::string& name) const;

    /// Looks at a file that has come whole and, when it names functions and has this build-id, puts
    /// it in place of the one before.
    /// @throws UnreadableSymbols with a sentence that says why not; std::system_error
    Symbols keep(IncomingFile file, const std::string& buildId);

    /// All of them, the newest first.
    std::vector<Symbols> list() const;

    /// @return whether there was one
    bool remove(const std::string& buildId);

    std::string stampOf(const std::string& buildId) const override;
    std::vector<std::string> namesAt(const std::string& buildId,
                                     std::span<const std::uint64_t> addresses) const override;

private:
    std::optional<std::filesystem::path> find(const std::string& buildId) const;

    const std::filesystem::path kept;
    const IncomingDirectory incoming;

    // Held while a file takes its place or goes, so that a directory does not go under a file that
    // is about to be put into it. Guards no member; no other lock is taken under it.
    std::mutex changing;
};

}  // namespace kolvan::server::symbols
