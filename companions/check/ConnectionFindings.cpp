#include "companions/check/ConnectionFindings.h"

#include "companions/check/AnswerFindings.h"
#include "companions/check/Endpoint.h"
#include "companions/check/ProxyFindings.h"
#include "companions/check/Request.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kolvan::check {

namespace {

using SystemClock = std::chrono::system_clock;

std::string textOf(SystemClock::time_point moment) {
    const std::time_t seconds = SystemClock::to_time_t(moment);
    std::tm parts{};
    std::array<char, 32> text{};
    const std::size_t length =
        std::strftime(text.data(), text.size(), "%F %T UTC", ::gmtime_r(&seconds, &parts));
    return {text.data(), length};
}

// What the server's certificate lacks, in words that need no knowledge of TLS. The transport
// library checks the name by itself, after OpenSSL has found everything else good, and has not
// taken over OpenSSL's result then.
std::string faultOfCertificate(const Exchange& exchange) {
    switch (exchange.verification) {
        case X509_V_OK:
        case X509_V_ERR_UNSPECIFIED:
            return "it was made for another host name or address";
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "it has expired, or a clock is wrong";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "it is not valid yet, or a clock is wrong";
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
            return "it is signed by itself, by no authority";
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return "it comes from an authority that this machine does not know, or the server "
                   "leaves out a certificate in between";
        default:
            return X509_verify_cert_error_string(exchange.verification);
    }
}

class ConnectionExamination {
public:
    ConnectionExamination(const cagnt1::AgentConfiguration& examined, Endpoint target,
                          std::optional<ProxyChoice> chosen, std::chrono::seconds waiting)
        : configuration(examined),
          endpoint(std::move(target)),
          proxy(std::move(chosen)),
          patience(waiting) {}

    Findings examine() {
        const std::string address = configuration.serverEndpoint + "/api/collection-agent/message";
        Exchange exchange = ask(address, true, patience);
        if (exchange.error == CURLE_PEER_FAILED_VERIFICATION) {
            reportReached(exchange);
            reportVerification(exchange);
            exchange = ask(address, false, patience);
        } else if (exchange.error == CURLE_OK || exchange.encrypted) {
            reportReached(exchange);
            reportVerified();
        }
        if (exchange.error != CURLE_OK) {
            reportFailure(exchange);
            return std::move(findings);
        }
        reportClocks(exchange);
        findings.push_back(examineAnswer(exchange, proxy.has_value()));
        return std::move(findings);
    }

private:
    void add(Severity severity, const char* topic, const char* step, std::string text) {
        findings.push_back({severity, topic, {step}, std::move(text)});
    }

    // Whoever a connection is made to.
    std::string nextHop() const {
        return proxy ? "the proxy " + withoutCredentials(proxy->address)
                     : endpoint.host + ":" + std::to_string(endpoint.port);
    }

    void reportReached(const Exchange& exchange) {
        if (proxy) {
            add(Severity::Note, "proxy", "proxy",
                "The way leads through " + nextHop() + ", as " + proxy->variable + " says.");
        }
        add(Severity::Note, "tcp", "TCP",
            "Connected to " + nextHop() + " at " + exchange.peer + ".");
    }

    void reportVerified() {
        if (endpoint.scheme != "https") {
            add(Severity::Note, "tls", "TLS", "Nothing is encrypted and nobody proves who it is.");
            return;
        }
        add(Severity::Note, "tls", "TLS",
            std::string("The server has proved who it is to the authorities of this machine.") +
                (configuration.serverCertificateName.empty()
                     ? ""
                     : " The agent does not ask for that proof while serverCertificateName is set; "
                       "the setting is not needed."));
    }

    void reportVerification(const Exchange& exchange) {
        const std::string fault =
            "The server's certificate does not prove who it is: " + faultOfCertificate(exchange);
        if (configuration.serverCertificateName.empty()) {
            add(Severity::Error, "tls", "TLS",
                fault + ". The agent refuses to talk to it (" + exchange.errorText + ").");
        } else {
            add(Severity::Warning, "tls", "TLS",
                fault +
                    ". The agent talks to it all the same, because serverCertificateName is "
                    "set.");
        }
    }

    void reportFailure(const Exchange& exchange) {
        if (exchange.proxyStatus != 0 && exchange.proxyStatus / 100 != 2) {
            add(Severity::Error, "proxy", "proxy",
                "The proxy does not let this connection through: it answers with status " +
                    std::to_string(exchange.proxyStatus) + ".");
            return;
        }
        const std::string words = " (" + exchange.errorText + ").";
        switch (exchange.error) {
            case CURLE_COULDNT_RESOLVE_HOST:
                add(Severity::Error, "name", "name",
                    "The name " + endpoint.host + " leads to no address" + words);
                return;
            case CURLE_COULDNT_RESOLVE_PROXY:
                add(Severity::Error, "proxy", "proxy",
                    "The name of " + nextHop() + " leads to no address" + words);
                return;
            case CURLE_COULDNT_CONNECT:
                add(Severity::Error, "tcp", "TCP",
                    "No connection can be made to " + nextHop() + words);
                return;
            case CURLE_SSL_CONNECT_ERROR:
                add(Severity::Error, "tls", "TLS",
                    "Whoever is reached does not speak TLS as the agent does" + words);
                return;
            case CURLE_OPERATION_TIMEDOUT:
                reportSilence(exchange);
                return;
            default:
                add(Severity::Error, "endpoint", "endpoint",
                    "The connection ends without a whole answer" + words);
        }
    }

    void reportSilence(const Exchange& exchange) {
        const std::string within = " within " + std::to_string(patience.count()) + " s.";
        if (exchange.peer.empty()) {
            add(Severity::Error, "tcp", "TCP",
                nextHop() + " does not accept a connection" + within);
        } else if (endpoint.scheme == "https" && !exchange.encrypted) {
            add(Severity::Error, "tls", "TLS",
                "The connection is accepted, and TLS does not begin" + within);
        } else {
            add(Severity::Error, "endpoint", "endpoint",
                "The connection is accepted, and no answer comes" + within +
                    " The agent would wait for ever.");
        }
    }

    void reportClocks(const Exchange& exchange) {
        if (!exchange.date) {
            add(Severity::Note, "clock", "clock", "The answer does not tell the time.");
            return;
        }
        constexpr std::chrono::seconds kMuch{60};
        const SystemClock::time_point own = SystemClock::now();
        const auto difference =
            std::chrono::duration_cast<std::chrono::seconds>(own - *exchange.date);
        const std::string clocks =
            "Here it is " + textOf(own) + ", there " + textOf(*exchange.date) + ".";
        if (difference > kMuch || difference < -kMuch) {
            add(Severity::Warning, "clock", "clock",
                clocks + " They differ by " + std::to_string(std::abs(difference.count())) +
                    " s: certificates may count as expired on one side only.");
        } else {
            add(Severity::Note, "clock", "clock", clocks);
        }
    }

    const cagnt1::AgentConfiguration& configuration;
    const Endpoint endpoint;
    const std::optional<ProxyChoice> proxy;
    const std::chrono::seconds patience;
    Findings findings;
};

}  // namespace

Findings examineConnection(const cagnt1::AgentConfiguration& configuration,
                           const Environment& environment, std::chrono::seconds patience) {
    try {
        Endpoint endpoint = parseEndpoint(configuration.serverEndpoint);
        std::optional<ProxyChoice> proxy = chooseProxy(endpoint, environment);
        return ConnectionExamination(configuration, std::move(endpoint), std::move(proxy), patience)
            .examine();
    } catch (const std::invalid_argument&) {
        return {};  // no address: that is found among the settings
    }
}

}  // namespace kolvan::check
