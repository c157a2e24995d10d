#include "tests/support/ReplyServer.h"

#include "tests/support/Gate.h"

#include <algorithm>
#include <utility>

namespace kolvan::test {

namespace {

const std::string kAccepted =
    R"({"messages":[{"messageType":"connected","messageParameters":{}}]})";
const std::string kNothing = R"({"messages":[]})";

std::string typeOf(const std::string& request) {
    const std::string key = R"("messageType":")";
    const std::size_t begin = request.find(key) + key.size();
    return request.substr(begin, request.find('"', begin) - begin);
}

}  // namespace

ReplyServer::ReplyServer(Rule replies)
    : rule(std::move(replies)), server([this](RawConnection& connection) { answer(connection); }) {}

void ReplyServer::answer(RawConnection& connection) {
    const std::string type = typeOf(bodyOf(connection.readRequest()));
    const std::optional<std::string> reply = rule(type, note(type));
    if (!reply && type == "commands:get") {
        (void)waitFor("disconnect");
    }
    (void)connection.send(httpReply(200, reply               ? *reply
                                         : type == "connect" ? kAccepted
                                                             : kNothing));
}

std::size_t ReplyServer::note(const std::string& type) {
    const std::lock_guard lock(mutex);
    received.push_back(type);
    changed.notify_all();
    return countOf(type);
}

// With the mutex held.
std::size_t ReplyServer::countOf(const std::string& type) const {
    return static_cast<std::size_t>(std::count(received.begin(), received.end(), type));
}

std::vector<std::string> ReplyServer::types() const {
    const std::lock_guard lock(mutex);
    return received;
}

bool ReplyServer::waitFor(const std::string& type, std::size_t count) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, kDeadline, [&] { return countOf(type) >= count; });
}

}  // namespace kolvan::test
