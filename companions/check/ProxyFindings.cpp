#include "companions/check/ProxyFindings.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <sstream>

namespace kolvan::check {

namespace {

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

// An empty variable counts as none.
std::optional<ProxyChoice> firstOf(std::initializer_list<const char*> names,
                                   const Environment& environment) {
    for (const char* name : names) {
        const auto variable = environment.find(name);
        if (variable != environment.end() && !variable->second.empty()) {
            return ProxyChoice{name, variable->second};
        }
    }
    return std::nullopt;
}

bool isExempt(const std::string& host, const Environment& environment) {
    const std::optional<ProxyChoice> exemption = firstOf({"no_proxy", "NO_PROXY"}, environment);
    if (!exemption) {
        return false;
    }
    std::string list = lowerCase(exemption->address);
    if (list == "*") {
        return true;
    }
    std::replace(list.begin(), list.end(), ',', ' ');
    const std::string wanted = lowerCase(host);
    std::istringstream names(list);
    for (std::string name; names >> name;) {
        name.erase(0, name.find_first_not_of('.'));
        if (!name.empty() && (wanted == name || wanted.ends_with("." + name))) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<ProxyChoice> chooseProxy(const Endpoint& endpoint, const Environment& environment) {
    if (isExempt(endpoint.host, environment)) {
        return std::nullopt;
    }
    return endpoint.scheme == "https"
               ? firstOf({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}, environment)
               : firstOf({"http_proxy", "all_proxy", "ALL_PROXY"}, environment);
}

Findings examineProxy(const Endpoint& endpoint, const Environment& environment) {
    Findings findings;
    const std::optional<ProxyChoice> chosen = chooseProxy(endpoint, environment);
    if (chosen) {
        findings.push_back({Severity::Warning,
                            "proxy",
                            {chosen->variable},
                            "Requests to " + endpoint.host + " go through the proxy " +
                                withoutCredentials(chosen->address) +
                                ", and what the proxy answers counts as the server's answer."});
    } else if (endpoint.scheme == "http" && firstOf({"HTTP_PROXY"}, environment) &&
               !isExempt(endpoint.host, environment)) {
        findings.push_back({Severity::Warning,
                            "proxy",
                            {"HTTP_PROXY"},
                            "This variable does nothing: for an address with http:// only "
                            "http_proxy, in lower-case letters, is obeyed."});
    }
    return findings;
}

}  // namespace kolvan::check
