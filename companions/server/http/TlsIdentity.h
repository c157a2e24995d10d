#pragma once

#include <openssl/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kolvan::server::http {

/// What the server shows and proves: a certificate with its chain and the key to it, from two PEM
/// files that somebody renews from time to time.
///
/// Threads: any member from any thread.
class TlsIdentity {
public:
    using Context = std::shared_ptr<SSL_CTX>;

    /// Reads the files.
    /// @throws std::runtime_error with the file and the reason when they cannot be used
    TlsIdentity(std::filesystem::path certificateFile, std::filesystem::path keyFile);

    /// What new connections are made with; those that are there keep theirs.
    Context context() const;

    /// Reads the files again when they are others than at the last reading.
    /// @return a sentence about it; empty when nothing has changed
    /// Files that cannot be used change nothing; they are looked at again when they change again.
    std::string reloadIfChanged();

private:
    std::string stamps() const;

    const std::filesystem::path certificatePath;
    const std::filesystem::path keyPath;

    mutable std::mutex mutex;  // guards current and readStamps; no other lock is taken under it
    std::string readStamps;
    Context current;
};

}  // namespace kolvan::server::http
