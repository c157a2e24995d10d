#pragma once

#include <curl/curl.h>

#include <string>

namespace kolvan::test {

/// What a plain transfer does besides posting.
struct PlainRequest {
    std::string body = "{}";
    bool verifiesServer = true;
    bool takesReply = true;  ///< whether it has room for what the server answers
};

/// How libcurl ended and described a transfer of the test's own, without anything of the agent.
///
/// The agent passes libcurl's descriptions on as they are. Their words change from version to
/// version, so that a test asks the library that is there for the text that has to arrive.
struct PlainFailure {
    CURLcode code;
    std::string description;  ///< of the error buffer; the words for the code where that is empty
};

/// Posts to `address`, and returns how that failed.
/// @throws std::runtime_error when it succeeded
PlainFailure failPlainly(const std::string& address, const PlainRequest& request = {});

/// The same for a failure about which the error buffer says more than the words for its code: only
/// then can a test tell which of the two the agent passed on.
/// @throws std::runtime_error when the two are alike, too
PlainFailure failInDetail(const std::string& address, const PlainRequest& request = {});

/// What libcurl says when the connection is reset in the place of a reply.
std::string reportOfAReset();

/// `description` with "#" in the place of each number. Those of libcurl name a time, or how many
/// bytes had come together at that moment, and differ from one attempt to the next.
std::string withoutNumbers(const std::string& description);

}  // namespace kolvan::test
