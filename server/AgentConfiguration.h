#pragma once

#include <string>

namespace cagnt1 {

/// The settings of the configuration file, named as its keys. A setting that the file does not
/// supply is empty.
struct AgentConfiguration {
    std::string accessToken;            ///< identifies the agent to the server
    std::string serverEndpoint;         ///< base address; the API paths are appended verbatim
    std::string serverCertificateName;  ///< authority file beside the executable; empty: none
    std::string buildVersion;           ///< collector build the server expects; empty: unknown
    std::string x86TargetPackageArchiveName;
    std::string x64TargetPackageArchiveName;

    friend bool operator==(const AgentConfiguration&, const AgentConfiguration&) = default;
};

}  // namespace cagnt1
