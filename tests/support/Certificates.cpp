#include "tests/support/Certificates.h"

#include <cstdlib>
#include <stdexcept>

namespace kolvan::test {

namespace {

constexpr char kConfiguration[] = R"([ca]
default_ca = own
[own]
database = index.txt
new_certs_dir = .
rand_serial = yes
unique_subject = no
default_md = sha256
policy = any
[any]
commonName = supplied
[req]
distinguished_name = name
[name]
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[loopback]
subjectAltName = IP:127.0.0.1
[elsewhere]
subjectAltName = DNS:elsewhere.example
)";

constexpr char kNewKey[] = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
constexpr char kFarAway[] = "20991231235959Z";

}  // namespace

Certificates::Certificates() {
    directory.write("openssl.cnf", kConfiguration);
    directory.write("index.txt", "");
    openssl(
        "req -x509 -config openssl.cnf -extensions authority -days 30 -subj '/CN=Test authority'" +
        std::string(kNewKey) + " -keyout authority.key -out authority.pem");
}

std::string Certificates::authorityFile() const {
    return directory.entry("authority.pem");
}

ServerIdentity Certificates::valid() const {
    return sign("valid", "loopback", kFarAway);
}

ServerIdentity Certificates::selfSigned() const {
    openssl("req -x509 -config openssl.cnf -extensions loopback -days 30 -subj /CN=self" +
            std::string(kNewKey) + " -keyout self.key -out self.pem");
    return {directory.entry("self.pem"), directory.entry("self.key")};
}

ServerIdentity Certificates::expired() const {
    return sign("expired", "loopback", "20200131000000Z");
}

ServerIdentity Certificates::otherHost() const {
    return sign("other", "elsewhere", kFarAway);
}

void Certificates::openssl(const std::string& arguments) const {
    const std::string command = "cd '" + directory.path().string() + "' && openssl " + arguments +
                                " >>openssl.log 2>&1 </dev/null";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl " + arguments + ":\n" +
                                 readFile(directory.entry("openssl.log")));
    }
}

ServerIdentity Certificates::sign(const std::string& name, const std::string& extensions,
                                  const std::string& endDate) const {
    openssl("req -new -config openssl.cnf -subj /CN=" + name + kNewKey + " -keyout " + name +
            ".key -out " + name + ".csr");
    openssl("ca -batch -notext -config openssl.cnf -cert authority.pem -keyfile authority.key" +
            std::string(" -extensions ") + extensions + " -startdate 20200101000000Z -enddate " +
            endDate + " -in " + name + ".csr -out " + name + ".pem");
    return {directory.entry(name + ".pem"), directory.entry(name + ".key")};
}

}  // namespace kolvan::test
