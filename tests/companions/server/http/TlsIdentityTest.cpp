#include "companions/server/http/TlsIdentity.h"

#include "tests/support/Certificates.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <filesystem>
#include <stdexcept>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using server::http::TlsIdentity;
using testing::StartsWith;

class IdentityFiles {
public:
    explicit IdentityFiles(const ServerIdentity& identity) { install(identity); }

    // As programs do it that renew certificates: a new file takes the name.
    void install(const ServerIdentity& identity) const {
        replace(identity.certificateFile, certificate());
        replace(identity.keyFile, key());
    }

    static void replace(const fs::path& source, const fs::path& place) {
        fs::copy_file(source, place.string() + ".new", fs::copy_options::overwrite_existing);
        fs::rename(place.string() + ".new", place);
    }

    fs::path certificate() const { return directory.path() / "certificate.pem"; }
    fs::path key() const { return directory.path() / "key.pem"; }

private:
    TemporaryDirectory directory;
};

std::string subjectOf(const TlsIdentity& identity) {
    const TlsIdentity::Context context = identity.context();
    X509* certificate = SSL_CTX_get0_certificate(context.get());
    return std::to_string(X509_subject_name_hash(certificate)) + ' ' +
           std::to_string(X509_issuer_name_hash(certificate));
}

TEST(TlsIdentityTest, NothingHappensWhileTheFilesStay) {
    const Certificates certificates;
    const IdentityFiles files(certificates.valid());
    TlsIdentity identity(files.certificate(), files.key());
    const auto before = identity.context();

    EXPECT_EQ("", identity.reloadIfChanged());

    EXPECT_EQ(before, identity.context());
}

TEST(TlsIdentityTest, NewFilesAreTaken) {
    const Certificates certificates;
    const IdentityFiles files(certificates.valid());
    TlsIdentity identity(files.certificate(), files.key());
    const std::string before = subjectOf(identity);
    files.install(certificates.selfSigned());

    EXPECT_EQ("The certificate has been read again: " + files.certificate().string(),
              identity.reloadIfChanged());

    EXPECT_NE(before, subjectOf(identity));
    EXPECT_EQ("", identity.reloadIfChanged());
}

TEST(TlsIdentityTest, FilesThatDoNotFitTogetherChangeNothing) {
    const Certificates certificates;
    const IdentityFiles files(certificates.valid());
    TlsIdentity identity(files.certificate(), files.key());
    const auto before = identity.context();
    const ServerIdentity other = certificates.selfSigned();
    IdentityFiles::replace(other.certificateFile, files.certificate());

    EXPECT_THAT(identity.reloadIfChanged(), StartsWith("The certificate in use is kept: " +
                                                       files.key().string() + " cannot be used: "));

    EXPECT_EQ(before, identity.context());
    EXPECT_EQ("", identity.reloadIfChanged()) << "it is said once";
    IdentityFiles::replace(other.keyFile, files.key());
    EXPECT_THAT(identity.reloadIfChanged(), StartsWith("The certificate has been read again"));
}

TEST(TlsIdentityTest, MissingFileChangesNothing) {
    const Certificates certificates;
    const IdentityFiles files(certificates.valid());
    TlsIdentity identity(files.certificate(), files.key());
    const auto before = identity.context();
    fs::remove(files.certificate());

    EXPECT_THAT(identity.reloadIfChanged(), StartsWith("The certificate in use is kept: "));

    EXPECT_EQ(before, identity.context());
}

TEST(TlsIdentityTest, UnusableFilesAreAnErrorAtFirst) {
    const TemporaryDirectory directory;
    const std::string file = directory.write("certificate.pem", "nonsense");

    EXPECT_THROW(TlsIdentity(file, file), std::runtime_error);
    EXPECT_THROW(TlsIdentity(directory.entry("none"), file), std::runtime_error);
}

}  // namespace
}  // namespace kolvan::test
