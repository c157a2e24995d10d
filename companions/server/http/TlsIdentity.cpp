#include "companions/server/http/TlsIdentity.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <exception>
#include <new>
#include <stdexcept>
#include <utility>

#include <sys/stat.h>

namespace kolvan::server::http {
namespace {

namespace fs = std::filesystem;

std::runtime_error unusable(const fs::path& file) {
    const unsigned long error = ERR_peek_last_error();
    const char* reason = ERR_reason_error_string(error);
    return std::runtime_error(file.string() +
                              " cannot be used: " + (reason == nullptr ? "unknown" : reason));
}

TlsIdentity::Context readContext(const fs::path& certificate, const fs::path& key) {
    ERR_clear_error();
    TlsIdentity::Context context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
        throw std::bad_alloc();
    }
    // A thousand connections wait most of their time; their buffers need not wait with them.
    (void)SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                              SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // The length of what is sent stands in the text itself, and many clients just go.
    (void)SSL_CTX_set_options(context.get(),
                              SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF |
                                  SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_COMPRESSION);
    // Agents come with a new connection for every request; a ticket costs no memory here.
    (void)SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1) {
        throw unusable(certificate);
    }
    if (SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(context.get()) != 1) {
        throw unusable(key);
    }
    return context;
}

std::string stampOf(const fs::path& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        return "missing";
    }
    return std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size) + ' ' +
           std::to_string(status.st_mtim.tv_sec) + ' ' + std::to_string(status.st_mtim.tv_nsec);
}

}  // namespace

TlsIdentity::TlsIdentity(fs::path certificateFile, fs::path keyFile)
    : certificatePath(std::move(certificateFile)),
      keyPath(std::move(keyFile)),
      readStamps(stamps()),
      current(readContext(certificatePath, keyPath)) {}

TlsIdentity::Context TlsIdentity::context() const {
    const std::lock_guard lock(mutex);
    return current;
}

std::string TlsIdentity::reloadIfChanged() {
    // Before the reading: what is written during it counts as the next change.
    std::string seen = stamps();
    {
        const std::lock_guard lock(mutex);
        if (seen == readStamps) {
            return {};
        }
        readStamps = std::move(seen);
    }
    try {
        Context fresh = readContext(certificatePath, keyPath);
        const std::lock_guard lock(mutex);
        current = std::move(fresh);
        return "The certificate has been read again: " + certificatePath.string();
    } catch (const std::exception& failure) {
        return std::string("The certificate in use is kept: ") + failure.what();
    }
}

std::string TlsIdentity::stamps() const {
    return stampOf(certificatePath) + ", " + stampOf(keyPath);
}

}  // namespace kolvan::server::http
