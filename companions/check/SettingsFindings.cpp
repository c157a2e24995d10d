#include "companions/check/SettingsFindings.h"

#include "companions/check/Endpoint.h"
#include "main/Startup.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

namespace kolvan::check {

namespace {

struct FileClose {
    void operator()(std::FILE* file) const noexcept {
        (void)std::fclose(file);  // it was only read
    }
};

struct CertificateFree {
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};

std::string stateOfCertificate(const std::string& path) {
    const std::unique_ptr<std::FILE, FileClose> file(std::fopen(path.c_str(), "re"));
    if (file == nullptr) {
        return " The file " + path +
               " is missing or cannot be read, and that changes nothing: the agent does not say "
               "so.";
    }
    const std::unique_ptr<X509, CertificateFree> certificate(
        PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
    if (certificate == nullptr) {
        return " The file " + path +
               " holds no certificate in PEM form, and that changes nothing: the agent does not "
               "say so.";
    }
    return {};
}

class SettingsExamination {
public:
    SettingsExamination(const cagnt1::AgentConfiguration& examined, const std::string& where)
        : configuration(examined), directory(where) {}

    Findings examine() {
        try {
            examineEndpoint(parseEndpoint(configuration.serverEndpoint));
        } catch (const std::invalid_argument& error) {
            add(Severity::Error, "address", "serverEndpoint",
                "This is no address of a server: " +
                    withoutCredentials(configuration.serverEndpoint) + " (" + error.what() + ").");
        }
        if (!configuration.serverCertificateName.empty()) {
            examineCertificate();
        }
        examineArchiveName("x86TargetPackageArchiveName",
                           configuration.x86TargetPackageArchiveName);
        examineArchiveName("x64TargetPackageArchiveName",
                           configuration.x64TargetPackageArchiveName);
        return std::move(findings);
    }

private:
    void add(Severity severity, const char* topic, const char* setting, std::string text) {
        findings.push_back({severity, topic, {setting}, std::move(text)});
    }

    void examineEndpoint(const Endpoint& endpoint) {
        if (endpoint.scheme != "http" && endpoint.scheme != "https") {
            add(Severity::Error, "address", "serverEndpoint",
                "The scheme \"" + endpoint.scheme +
                    "\" is none that a server speaks; it has to be http or https.");
            return;
        }
        if (!endpoint.schemeWritten) {
            add(Severity::Warning, "no-scheme", "serverEndpoint",
                "The address has no scheme, and is taken for one that begins with http://.");
        }
        if (endpoint.scheme == "http" && !endpoint.isLocal()) {
            add(Severity::Warning, "plain-http", "serverEndpoint",
                "Plain HTTP to another host: everything, the access token too, can be read on the "
                "way to " +
                    endpoint.host + ", and whoever can change it commands the agent.");
        }
        if (endpoint.hasQueryOrFragment) {
            add(Severity::Error, "address", "serverEndpoint",
                "The address has a \"?\" or \"#\"; the agent appends its paths behind it, where "
                "they are none.");
        } else if (configuration.serverEndpoint.back() == '/') {
            add(Severity::Warning, "doubled-slash", "serverEndpoint",
                "The address ends with \"/\"; the agent's paths begin with one, so that the "
                "server is asked for //api/collection-agent/message. Leave it out.");
        }
        encrypted = endpoint.scheme == "https";
    }

    void examineCertificate() {
        if (!encrypted) {
            add(Severity::Warning, "certificate", "serverCertificateName",
                "A certificate file is set, and nothing is encrypted: the address does not begin "
                "with https://.");
            return;
        }
        add(Severity::Warning, "certificate", "serverCertificateName",
            "A certificate file is set, and this turns verification off: neither the server's "
            "certificate nor its name is checked, so that anybody on the way can be the server." +
                stateOfCertificate(cagnt1::certificatePath(directory, configuration)));
    }

    void examineArchiveName(const char* setting, const std::string& name) {
        const std::size_t odd = name.find_first_not_of(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/+,:@!$'()*;");
        if (odd != std::string::npos) {
            add(Severity::Warning, "archive-name", setting,
                "The name \"" + name +
                    "\" has characters that mean something else in an address; the agent asks for "
                    "it as it stands, and the server may read another name.");
        }
        if (name.find('/') != std::string::npos) {
            add(Severity::Warning, "archive-name", setting,
                "The name \"" + name +
                    "\" has a \"/\": the archive is stored below target in a directory that has to "
                    "be there.");
        }
    }

    const cagnt1::AgentConfiguration& configuration;
    const std::string& directory;
    Findings findings;
    bool encrypted = false;
};

}  // namespace

Findings examineSettings(const cagnt1::AgentConfiguration& configuration,
                         const std::string& directory) {
    return SettingsExamination(configuration, directory).examine();
}

}  // namespace kolvan::check
