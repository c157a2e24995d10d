#include "tests/companions/client/ContractServer.h"

#include "tests/support/TemporaryDirectory.h"

#include <rapidjson/document.h>
#include <rapidjson/pointer.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kolvan::client::test {

namespace {

using kolvan::test::bodyOf;
using kolvan::test::httpReply;
using kolvan::test::RawConnection;

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::string jsonOf(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

bool matches(const std::vector<std::string>& path, const std::vector<std::string>& segments) {
    return path.size() == segments.size() &&
           std::equal(path.begin(), path.end(), segments.begin(),
                      [](const std::string& expected, const std::string& actual) {
                          return expected.starts_with('{') ? !actual.empty() : expected == actual;
                      });
}

std::string withType(int status, const std::string& type, const std::string& body) {
    return httpReply(status, body, "Content-Type: " + type + "\r\n");
}

}  // namespace

ContractServer::ContractServer(Rule answers)
    : rule(std::move(answers)), server([this](RawConnection& connection) { answer(connection); }) {
    readContract();
}

std::map<std::string, ContractServer::Operation> ContractServer::readContract() {
    std::map<std::string, Operation> operations;
    rapidjson::Document contract;
    contract.Parse(kolvan::test::readFile(KOLVAN_CONTRACT).c_str());
    for (const auto& path : contract["paths"].GetObject()) {
        for (const auto& [method, described] : path.value.GetObject()) {
            Operation operation;
            operation.path = split(path.name.GetString(), '/');
            for (const char* letter = method.GetString(); *letter != '\0'; ++letter) {
                operation.method += static_cast<char>(*letter - 'a' + 'A');
            }
            if (described.HasMember("parameters")) {
                for (const auto& one : described["parameters"].GetArray()) {
                    const rapidjson::Value& parameter =
                        one.HasMember("$ref")
                            ? *rapidjson::Pointer(one["$ref"].GetString()).Get(contract)
                            : one;
                    operation.parameters.emplace_back(parameter["name"].GetString());
                }
            }
            const auto& response = *described["responses"].MemberBegin();  // the good one
            operation.status = std::stoi(response.name.GetString());
            if (response.value.HasMember("content")) {
                const auto& media = *response.value["content"].MemberBegin();
                operation.contentType = media.name.GetString();
                if (media.value.HasMember("example")) {
                    const rapidjson::Value& example = media.value["example"];
                    operation.example = example.IsString() ? example.GetString() : jsonOf(example);
                }
            }
            operations.emplace(described["operationId"].GetString(), std::move(operation));
        }
    }
    return operations;
}

std::string ContractServer::operationOf(const std::string& method, const std::string& target) {
    const std::size_t question = target.find('?');
    const std::vector<std::string> segments = split(target.substr(0, question), '/');
    for (const auto& [id, operation] : operations) {
        if (operation.method != method || !matches(operation.path, segments)) {
            continue;
        }
        if (question != std::string::npos) {
            for (const std::string& part : split(target.substr(question + 1), '&')) {
                const std::string name = part.substr(0, part.find('='));
                if (std::count(operation.parameters.begin(), operation.parameters.end(), name) ==
                    0) {
                    unknown.push_back(method + " " + target + ": " + name);
                }
            }
        }
        return id;
    }
    unknown.push_back(method + " " + target);
    return {};
}

void ContractServer::answer(RawConnection& connection) {
    for (;;) {
        const std::string request = connection.readRequest();
        if (request.empty()) {
            return;
        }
        std::istringstream line(request);
        std::string method;
        std::string target;
        line >> method >> target;
        std::string id;
        std::size_t number = 0;
        {
            const std::lock_guard lock(mutex);
            const std::string body = bodyOf(request);
            received.push_back(method + " " + target + (body.empty() ? "" : " " + body));
            id = operationOf(method, target);
            number = ++counts[id];
        }
        if (id.empty()) {
            (void)connection.send(problem(404, "There is no such route."));
        } else if (!rule || !rule(id, number, request, connection)) {
            const Operation& operation = operations.at(id);
            (void)connection.send(
                withType(operation.status, operation.contentType, operation.example));
        }
    }
}

std::vector<std::string> ContractServer::requests() const {
    const std::lock_guard lock(mutex);
    return received;
}

std::vector<std::string> ContractServer::complaints() const {
    const std::lock_guard lock(mutex);
    return unknown;
}

std::string ContractServer::example(const std::string& operation) const {
    return operations.at(operation).example;
}

std::string ContractServer::json(const std::string& body, int status) {
    return withType(status, "application/json", body);
}

std::string ContractServer::problem(int status, const std::string& detail) {
    return withType(status, "application/problem+json",
                    R"({"type":"about:blank","title":"Problem","status":)" +
                        std::to_string(status) + R"(,"detail":")" + detail + "\"}");
}

}  // namespace kolvan::client::test
