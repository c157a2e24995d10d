#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <string>

namespace kolvan::test {

/// What a TLS server shows and proves: paths of two PEM files.
struct ServerIdentity {
    std::string certificateFile;
    std::string keyFile;
};

/// A certificate authority of its own and the server identities that it signs, made with the
/// `openssl` command and gone with this object.
class Certificates {
public:
    /// Makes the authority.
    /// @throws std::runtime_error with the command's output when `openssl` fails, as every member
    Certificates();

    /// PEM file of the authority's certificate.
    std::string authorityFile() const;

    /// An identity for 127.0.0.1 with which nothing is wrong.
    ServerIdentity valid() const;

    /// An identity for 127.0.0.1 that no authority has signed.
    ServerIdentity selfSigned() const;

    /// An identity for 127.0.0.1 that was valid in January 2020.
    ServerIdentity expired() const;

    /// An identity for a host that is not 127.0.0.1.
    ServerIdentity otherHost() const;

private:
    void openssl(const std::string& arguments) const;
    ServerIdentity sign(const std::string& name, const std::string& extensions,
                        const std::string& endDate) const;

    TemporaryDirectory directory;
};

}  // namespace kolvan::test
