#include "tests/support/PlainTransfer.h"

#include "server/CurlHandles.h"
#include "tests/support/RawServer.h"

#include <array>
#include <cstddef>
#include <stdexcept>

namespace kolvan::test {

namespace {

std::size_t take(const char*, std::size_t size, std::size_t count, const bool* hasRoom) noexcept {
    return *hasRoom ? size * count : 0;
}

}  // namespace

PlainFailure failPlainly(const std::string& address, const PlainRequest& request) {
    const cagnt1::CurlLibrary library;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    const cagnt1::CurlEasyHandle handle(curl_easy_init());
    curl_easy_setopt(handle.get(), CURLOPT_URL, address.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");  // whatever the machine's environment says
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, request.body.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &take);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &request.takesReply);
    curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, errorText.data());
    if (!request.verifiesServer) {
        curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    }
    const CURLcode code = curl_easy_perform(handle.get());
    if (code == CURLE_OK) {
        throw std::runtime_error("a plain transfer to " + address + " did not fail");
    }
    return {code, errorText.front() != '\0' ? errorText.data() : curl_easy_strerror(code)};
}

PlainFailure failInDetail(const std::string& address, const PlainRequest& request) {
    PlainFailure failure = failPlainly(address, request);
    if (failure.description == curl_easy_strerror(failure.code)) {
        throw std::runtime_error("no details: " + failure.description);
    }
    return failure;
}

std::string reportOfAReset() {
    const RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        connection.resetAtEnd();
    });
    return failInDetail(server.endpoint()).description;
}

std::string withoutNumbers(const std::string& description) {
    std::string masked;
    for (const char character : description) {
        const bool isDigit = character >= '0' && character <= '9';
        if (!isDigit) {
            masked += character;
        } else if (!masked.ends_with('#')) {
            masked += '#';
        }
    }
    return masked;
}

}  // namespace kolvan::test
