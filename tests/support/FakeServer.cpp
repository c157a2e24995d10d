#include "tests/support/FakeServer.h"

#include "server/MessageJson.h"
#include "tests/support/Gate.h"

#include <stdexcept>
#include <utility>

#include <unistd.h>

namespace kolvan::test {

namespace {

/// One request is one message object, not a batch.
cagnt1::Message decode(const std::string& requestText) {
    const Messages messages = cagnt1::messagesFromJson("{\"messages\":[" + requestText + "]}");
    if (messages.size() != 1) {
        throw std::logic_error("a request is not one message: " + requestText);
    }
    return messages.front();
}

FakeServer::Answer always(std::string replyText) {
    return [text = std::move(replyText)](const FakeServer::Request&) { return text; };
}

}  // namespace

FakeServer::FakeServer() {
    standing["connect"] = always(cagnt1::messagesToJson({connected()}));
    held.insert("commands:get");
}

FakeServer::~FakeServer() {
    end();
}

void FakeServer::answer(const std::string& type, Answer answer) {
    const std::lock_guard lock(mutex);
    queued[type].push_back(std::move(answer));
    changed.notify_all();
}

void FakeServer::answer(const std::string& type, const Messages& reply) {
    answerText(type, cagnt1::messagesToJson(reply));
}

void FakeServer::answerText(const std::string& type, const std::string& replyText) {
    answer(type, always(replyText));
}

void FakeServer::fail(const std::string& type, const std::string& description) {
    answer(type,
           [description](const Request&) -> std::string { throw std::runtime_error(description); });
}

void FakeServer::answerEvery(const std::string& type, Answer answer) {
    const std::lock_guard lock(mutex);
    standing[type] = std::move(answer);
}

void FakeServer::hold(const std::string& type) {
    const std::lock_guard lock(mutex);
    held.insert(type);
}

void FakeServer::release(const std::string& type) {
    const std::lock_guard lock(mutex);
    held.erase(type);
    changed.notify_all();
}

void FakeServer::end() {
    const std::lock_guard lock(mutex);
    ended = true;
    changed.notify_all();
}

FakeServer::Request FakeServer::waitForRequest(const std::string& type, std::size_t n) {
    std::unique_lock lock(mutex);
    const auto hasCome = [&] { return receivedOfType[type].size() >= n; };
    if (!changed.wait_for(lock, kDeadline, hasCome)) {
        throw std::runtime_error("request " + std::to_string(n) + " of type \"" + type +
                                 "\" has not come");
    }
    return received[receivedOfType[type][n - 1]];
}

std::vector<FakeServer::Request> FakeServer::requests() {
    const std::lock_guard lock(mutex);
    return received;
}

std::vector<FakeServer::Request> FakeServer::requests(const std::string& type) {
    const std::lock_guard lock(mutex);
    std::vector<Request> found;
    for (const std::size_t position : receivedOfType[type]) {
        found.push_back(received[position]);
    }
    return found;
}

std::size_t FakeServer::count(const std::string& type) {
    const std::lock_guard lock(mutex);
    return receivedOfType[type].size();
}

std::vector<std::string> FakeServer::types() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> found;
    for (const Request& request : received) {
        found.push_back(request.message.type);
    }
    return found;
}

void FakeServer::forgetRequests() {
    const std::lock_guard lock(mutex);
    received.clear();
    received.shrink_to_fit();
    receivedOfType.clear();
}

std::string FakeServer::sendMessages(const std::string& requestJson) {
    const Request request{requestJson, decode(requestJson), std::this_thread::get_id(), ::gettid()};
    std::unique_lock lock(mutex);
    receivedOfType[request.message.type].push_back(received.size());
    received.push_back(request);
    changed.notify_all();
    // Chosen before anybody can see the request, so that nothing done later changes the answer.
    const Answer answer = nextAnswer(lock, request.message.type);
    lock.unlock();
    return answer ? answer(request) : std::string();
}

FakeServer::Answer FakeServer::nextAnswer(std::unique_lock<std::mutex>& lock,
                                          const std::string& type) {
    changed.wait(lock, [&] { return ended || !queued[type].empty() || held.count(type) == 0; });
    if (queued[type].empty()) {
        return standing[type];
    }
    Answer answer = std::move(queued[type].front());
    queued[type].pop_front();
    return answer;
}

bool FakeServer::downloadTargetPackage(const std::string& archiveName,
                                       const std::string& destinationPath) {
    return !download || download(archiveName, destinationPath);
}

bool FakeServer::uploadTraceFile(const std::string& localFilePath,
                                 const std::string& remoteDirectory) {
    return !upload || upload(localFilePath, remoteDirectory);
}

}  // namespace kolvan::test
