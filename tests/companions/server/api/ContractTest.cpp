#include "companions/server/api/ContractRoute.h"
#include "companions/server/store/Names.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using namespace kolvan::server;
using testing::Contains;
using testing::IsEmpty;

constexpr std::array kRoles = {Role::Viewer, Role::Engineer, Role::Administrator};

/// What the contract says of one method of one path.
struct Operation {
    std::string method;
    std::string path;          ///< "{name}" stands for any segment
    std::optional<Role> role;  ///< the least that suffices; none: for everybody

    /// By their statuses, the types of the answers' bodies.
    std::map<int, std::set<std::string>> answers;

    std::string name() const { return method + ' ' + path; }

    /// A path of this form that leads to nothing there is.
    std::string target() const {
        std::string text = path;
        for (std::size_t begin = 0; (begin = text.find('{')) != std::string::npos;) {
            text.replace(begin, text.find('}') - begin + 1, "none");
        }
        return text;
    }

    bool changesSomething() const { return method != "GET"; }
};

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

const rapidjson::Value& resolved(const rapidjson::Document& contract,
                                 const rapidjson::Value& value) {
    if (!value.HasMember("$ref")) {
        return value;
    }
    const std::string reference = value["$ref"].GetString();
    return contract["components"]["responses"][reference.substr(reference.rfind('/') + 1).c_str()];
}

std::optional<Role> leastRole(const rapidjson::Value& described) {
    std::optional<Role> role;
    for (const auto& way : described["security"].GetArray()) {
        for (const auto& [scheme, roles] : way.GetObject()) {
            role = server::valueOf<Role>(roles[0].GetString());
        }
    }
    return role;
}

std::vector<Operation> readContract() {
    rapidjson::Document contract;
    const std::string_view text = api::contract();
    contract.Parse(text.data(), text.size());
    std::vector<Operation> operations;
    for (const auto& [path, methods] : contract["paths"].GetObject()) {
        for (const auto& [method, described] : methods.GetObject()) {
            Operation operation{
                upper(method.GetString()), path.GetString(), leastRole(described), {}};
            for (const auto& [status, response] : described["responses"].GetObject()) {
                std::set<std::string>& types = operation.answers[std::stoi(status.GetString())];
                const rapidjson::Value& answer = resolved(contract, response);
                if (answer.HasMember("content")) {
                    for (const auto& [type, schema] : answer["content"].GetObject()) {
                        types.insert(type.GetString());
                    }
                }
            }
            operations.push_back(std::move(operation));
        }
    }
    return operations;
}

class ContractTest : public testing::Test {
protected:
    /// The answer has a status and a type that the contract has for it.
    static void expectDescribed(const Operation& operation, const ReceivedResponse& response) {
        const auto described = operation.answers.find(response.status);
        ASSERT_TRUE(described != operation.answers.end())
            << operation.name() << " answers " << response.status << ": " << response.body;
        const auto type = response.fields.find("content-type");
        if (type == response.fields.end()) {
            EXPECT_THAT(described->second, IsEmpty()) << operation.name();
        } else {
            EXPECT_THAT(described->second, Contains(type->second))
                << operation.name() << ' ' << response.status;
        }
    }

    ReceivedResponse sendAs(Role role, const Operation& operation) {
        return scene.send(ApiRequest{operation.method, operation.target()}.with(scene.token(role)));
    }

    ReceivedResponse sendFromPage(const NewSession& session, const Operation& operation,
                                  const std::string& crossSiteToken) {
        ApiRequest request{operation.method, operation.target()};
        request.fields.emplace_back("Cookie", "kolvan_session=" + session.cookie);
        request.fields.emplace_back("X-Cross-Site-Token", crossSiteToken);
        return scene.send(request);
    }

    const std::vector<Operation> operations = readContract();
    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(ContractTest, ServerHasTheRoutesOfTheContractAndNoOthers) {
    std::set<std::string> described;
    for (const Operation& operation : operations) {
        described.insert(operation.name());
    }
    std::set<std::string> served;
    for (const http::Route& route : scene.server.router.all()) {
        std::string name = route.method + ' ';
        for (const std::string& segment : route.pattern) {
            name += '/' + segment;
        }
        served.insert(name);
    }

    EXPECT_EQ(described, served);
}

TEST_F(ContractTest, WhoeverHasNoAccountGetsInWhereTheContractSaysSoOnly) {
    for (const Operation& operation : operations) {
        const ReceivedResponse response =
            scene.send(ApiRequest{operation.method, operation.target()});

        EXPECT_EQ(operation.role.has_value(), response.status == 401) << operation.name();
        expectDescribed(operation, response);
    }
}

TEST_F(ContractTest, WrongTokenIsWorthNothing) {
    for (const Operation& operation : operations) {
        const ReceivedResponse response = scene.send(
            ApiRequest{operation.method, operation.target()}.with("kst_" + std::string(43, 'A')));

        EXPECT_EQ(operation.role.has_value(), response.status == 401) << operation.name();
    }
}

TEST_F(ContractTest, RolesBelowTheNamedOneAreRefusedAndTheOthersAreNot) {
    for (const Operation& operation : operations) {
        for (const Role role : kRoles) {
            const ReceivedResponse response = sendAs(role, operation);

            EXPECT_EQ(operation.role && role < *operation.role, response.status == 403)
                << operation.name() << " as " << nameOf(role);
            EXPECT_NE(401, operation.role ? response.status : 0) << operation.name();
            expectDescribed(operation, response);
        }
    }
}

TEST_F(ContractTest, PageSendsItsTokenWithWhateverChangesSomething) {
    for (const Operation& operation : operations) {
        if (!operation.role) {
            continue;
        }
        const NewSession session = scene.logIn(
            "user" + std::to_string(&operation - operations.data()), Role::Administrator);

        const ReceivedResponse without = sendFromPage(session, operation, "");
        const ReceivedResponse guessed = sendFromPage(session, operation, std::string(43, 'A'));
        const ReceivedResponse with =
            sendFromPage(session, operation, session.signedIn.crossSiteToken);

        EXPECT_EQ(operation.changesSomething(), without.status == 403) << operation.name();
        EXPECT_EQ(operation.changesSomething(), guessed.status == 403) << operation.name();
        EXPECT_NE(403, with.status) << operation.name();
        EXPECT_NE(401, with.status) << operation.name();
        expectDescribed(operation, with);
    }
}

}  // namespace
}  // namespace kolvan::test
