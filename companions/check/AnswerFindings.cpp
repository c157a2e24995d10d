#include "companions/check/AnswerFindings.h"

#include "companions/check/JsonOutline.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace kolvan::check {

namespace {

bool beginsWith(std::string_view text, std::string_view lowerCaseWords) {
    const std::size_t begin = std::min(text.find_first_not_of(" \t\r\n"), text.size());
    text = text.substr(begin, lowerCaseWords.size());
    return std::equal(text.begin(), text.end(), lowerCaseWords.begin(), lowerCaseWords.end(),
                      [](unsigned char left, char right) { return std::tolower(left) == right; });
}

bool isPage(const Exchange& exchange) {
    return beginsWith(exchange.contentType, "text/html") ||
           beginsWith(exchange.body, "<!doctype html") || beginsWith(exchange.body, "<html");
}

bool isListOfMessages(const Exchange& exchange) {
    const JsonOutline outline = outlineOf(exchange.body);
    return std::any_of(outline.members.begin(), outline.members.end(),
                       [](const JsonMember& member) {
                           return member.key == "messages" && member.kind == JsonKind::Array;
                       });
}

// Who says so, in its own words.
std::string author(const Exchange& exchange) {
    std::string names;
    if (!exchange.server.empty()) {
        names += " Server: " + exchange.server + ".";
    }
    if (!exchange.via.empty()) {
        names += " Via: " + exchange.via + ".";
    }
    return names;
}

Finding finding(Severity severity, const char* topic, std::string text) {
    return {severity, topic, {"endpoint"}, std::move(text)};
}

}  // namespace

Finding examineAnswer(const Exchange& exchange, bool throughProxy) {
    constexpr long kProxyWantsPassword = 407;
    const long status = exchange.status;
    const std::string number = std::to_string(status);
    const bool refused = status >= 400;
    if (status / 100 == 3) {
        return finding(Severity::Error, "redirect",
                       "The answer is a redirect (status " + number + ") to " +
                           (exchange.redirect.empty() ? "nowhere" : exchange.redirect) +
                           ". The agent does not follow it; configure the address to which it "
                           "leads, without /api/collection-agent/message." +
                           author(exchange));
    }
    if (status == kProxyWantsPassword) {
        return finding(
            Severity::Error, "proxy-answer",
            "The proxy wants a user name and a password (status 407)." + author(exchange));
    }
    if (isListOfMessages(exchange) && status < 500) {
        return finding(Severity::Note, "endpoint",
                       refused ? "A profiling server answers. It refuses a message without token "
                                 "(status " +
                                     number + "), as it should."
                               : "A profiling server answers (status " + number + ").");
    }
    const bool gateway = status >= 502 && status <= 504;
    if (gateway || (refused && (throughProxy || !exchange.via.empty()))) {
        return finding(Severity::Error, "proxy-answer",
                       "This is a proxy's answer (status " + number +
                           "), not the server's. The agent would take it for the server's." +
                           author(exchange));
    }
    if (isPage(exchange)) {
        return finding(Severity::Error, "html",
                       "The answer is an HTML page (status " + number +
                           "): this address belongs to something else than a profiling server, "
                           "or a part of its path is missing." +
                           author(exchange));
    }
    if (status == 404 || status == 405 || status >= 500) {
        return finding(Severity::Error, "status",
                       "The answer is an error (status " + number +
                           "): there is no profiling server at this address, or it fails." +
                           author(exchange));
    }
    if (refused) {
        return finding(Severity::Warning, "status",
                       "The message without token and type is refused (status " + number +
                           ") by an answer that is no list of messages. An agent may be accepted "
                           "all the same." +
                           author(exchange));
    }
    return finding(Severity::Error, "no-messages",
                   "The answer (status " + number +
                       ") is no list of messages: the agent would take it for a refusal." +
                       author(exchange));
}

}  // namespace kolvan::check
