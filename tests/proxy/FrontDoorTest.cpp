#include "server/CurlHandles.h"
#include "tests/proxy/ProxiedAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <ostream>
#include <string>

namespace kolvan::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// How long libcurl keeps the body back when nobody asks for it, in milliseconds: beyond any test.
constexpr long kUntilItIsAskedFor = 600'000;

/// A proxy that lets every cipher pass, so that the version alone decides.
struct Door {
    const char* name;
    ProxyKind kind;
    Replacements weakCiphers;
    Replacements olderVersions;  ///< in the place of the line that refuses them
};

void PrintTo(const Door& door, std::ostream* stream) {
    *stream << door.name;
}

std::size_t takeText(const char* piece, std::size_t size, std::size_t count, std::string* text) {
    text->append(piece, size * count);
    return size * count;
}

/// A request of the test's own to the place where agents send their messages.
class Visit {
public:
    explicit Visit(const ProxiedAgent& proxied) {
        const std::string address = proxied.proxy->endpoint() + "/api/collection-agent/message";
        curl_easy_setopt(handle.get(), CURLOPT_URL, address.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");  // whatever the environment says
        curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(handle.get(), CURLOPT_SSL_CIPHER_LIST, "ALL:@SECLEVEL=0");
        curl_easy_setopt(handle.get(), CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &takeText);
        curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
        curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, &takeText);
        curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &heads);
        curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, errorText.data());
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, "{}");
    }

    CURL* settings() const { return handle.get(); }

    /// @return "answered", or why it was not
    std::string result() {
        return curl_easy_perform(handle.get()) == CURLE_OK ? "answered" : errorText.data();
    }

    /// The same, spoken in no other version of TLS than this one.
    std::string resultWith(long lowest, long highest) {
        curl_easy_setopt(handle.get(), CURLOPT_SSLVERSION, lowest | highest);
        return result();
    }

    std::string heads;  ///< of all answers, in their order
    std::string body;

private:
    const cagnt1::CurlLibrary library;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    const cagnt1::CurlEasyHandle handle{curl_easy_init()};
};

std::string visitWith(const ProxiedAgent& proxied, long lowest, long highest) {
    return Visit(proxied).resultWith(lowest, highest);
}

class ProxyDoorTest : public testing::TestWithParam<Door> {};

TEST_P(ProxyDoorTest, VersionsOfTlsBefore12AreRefused) {
    const ProxiedAgent proxied(GetParam().kind, GetParam().weakCiphers, /*installed=*/true);

    EXPECT_THAT(visitWith(proxied, CURL_SSLVERSION_TLSv1_0, CURL_SSLVERSION_MAX_TLSv1_0),
                HasSubstr("alert protocol version"));
    EXPECT_THAT(visitWith(proxied, CURL_SSLVERSION_TLSv1_1, CURL_SSLVERSION_MAX_TLSv1_1),
                HasSubstr("alert protocol version"));
    EXPECT_EQ("answered", visitWith(proxied, CURL_SSLVERSION_TLSv1_2, CURL_SSLVERSION_MAX_TLSv1_2));
    EXPECT_EQ("answered", visitWith(proxied, CURL_SSLVERSION_TLSv1_3, CURL_SSLVERSION_MAX_TLSv1_3));
}

// The refusals above are the line's own work, and no rule of the library's.
TEST_P(ProxyDoorTest, WithoutItsLineAnOldVersionOfTlsIsTaken) {
    Replacements changes = GetParam().weakCiphers;
    changes.insert(changes.end(), GetParam().olderVersions.begin(), GetParam().olderVersions.end());
    const ProxiedAgent proxied(GetParam().kind, changes, /*installed=*/true);

    EXPECT_EQ("answered", visitWith(proxied, CURL_SSLVERSION_TLSv1_1, CURL_SSLVERSION_MAX_TLSv1_1));
}

TEST_P(ProxyDoorTest, BodyThatWaitsForContinueIsAskedFor) {
    const ProxiedAgent proxied(GetParam().kind, {}, /*installed=*/true);
    Visit visit(proxied);
    const cagnt1::CurlHeaderList header(curl_slist_append(nullptr, "Expect: 100-continue"));
    curl_easy_setopt(visit.settings(), CURLOPT_HTTPHEADER, header.get());
    curl_easy_setopt(visit.settings(), CURLOPT_EXPECT_100_TIMEOUT_MS, kUntilItIsAskedFor);

    EXPECT_EQ("answered", visit.result());

    EXPECT_THAT(visit.heads, StartsWith("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 "));
    EXPECT_THAT(visit.body, StartsWith("{\"messages\":["));
}

INSTANTIATE_TEST_SUITE_P(
    , ProxyDoorTest,
    testing::Values(Door{"Nginx",
                         ProxyKind::Nginx,
                         {{"    server {\n", "    server {\n ssl_ciphers ALL:@SECLEVEL=0;\n"}},
                         {{"ssl_protocols TLSv1.2 TLSv1.3;", "ssl_protocols TLSv1.1 TLSv1.2;"}}},
                    Door{"HaProxy",
                         ProxyKind::HaProxy,
                         {{"ssl-min-ver", "ciphers ALL:@SECLEVEL=0 ssl-min-ver"}},
                         {{"ssl-min-ver TLSv1.2", "ssl-min-ver TLSv1.1"}}}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

}  // namespace
}  // namespace kolvan::test
