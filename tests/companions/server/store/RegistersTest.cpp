#include "tests/companions/server/store/StoreTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class RegistersTest : public StoreTest {
protected:
    void append(const std::string& action, const std::string& actor = "anna") {
        store->audit().append({0, {}, actor, "192.0.2.1", action, "subject", "detail"});
    }

    std::vector<std::string> actions(const AuditFilter& filter = {}) {
        std::vector<std::string> found;
        for (const AuditLine& line : store->audit().list(filter, {}).items) {
            found.push_back(line.action);
        }
        return found;
    }
};

TEST_F(RegistersTest, AuditIsReadNewestFirst) {
    append("login");
    clock.jump(-1h);
    append("user.add");

    const auto page = store->audit().list({}, {1, ""});

    ASSERT_EQ(1U, page.items.size());
    const AuditLine& line = page.items[0];
    EXPECT_EQ("user.add", line.action);
    EXPECT_EQ("anna", line.actor);
    EXPECT_EQ("192.0.2.1", line.address);
    EXPECT_EQ("subject", line.subject);
    EXPECT_EQ("detail", line.detail);
    EXPECT_EQ(clock.utc(), line.time);
    const auto next = store->audit().list({}, {1, page.next});
    ASSERT_EQ(1U, next.items.size());
    EXPECT_EQ("login", next.items[0].action);
    EXPECT_LT(next.items[0].number, line.number);
}

TEST_F(RegistersTest, AuditIsFilteredByActorAndAction) {
    append("login");
    append("login.refused", "eve");
    append("loginother");

    EXPECT_THAT(actions({"", "login"}), ElementsAre("login.refused", "login"));
    EXPECT_THAT(actions({"eve", ""}), ElementsAre("login.refused"));
    EXPECT_THAT(actions({"", "login.refused"}), ElementsAre("login.refused"));
}

TEST_F(RegistersTest, OldestLinesOfTheAuditGoFirst) {
    for (const char* const action : {"1", "2", "3", "4"}) {
        append(action);
    }

    EXPECT_EQ(2U, store->audit().keepNewest(2));
    EXPECT_EQ(0U, store->audit().keepNewest(2));

    EXPECT_THAT(actions(), ElementsAre("4", "3"));
}

TEST_F(RegistersTest, PackageTakesThePlaceOfThatOfItsArchitecture) {
    store->packages().put({PackageArchitecture::X64, "old.tar.gz", 1, sha256("1"), {}});
    store->packages().put({PackageArchitecture::X86, "x86.tar.gz", 2, sha256("2"), {}});
    clock.advance(1min);
    store->packages().put({PackageArchitecture::X64, "new.tar.gz", 3'000'000'000, sha256("3"), {}});

    EXPECT_FALSE(store->packages().find("old.tar.gz"));
    const auto found = store->packages().find("new.tar.gz");
    ASSERT_TRUE(found);
    EXPECT_EQ(PackageArchitecture::X64, found->architecture);
    EXPECT_EQ(3'000'000'000U, found->sizeBytes);
    EXPECT_EQ(sha256("3"), found->hash);
    EXPECT_EQ(clock.utc(), found->added);
    EXPECT_EQ(2U, store->packages().list().size());
}

TEST_F(RegistersTest, SettingIsReplaced) {
    EXPECT_FALSE(store->settings().find(SettingStore::kPublicUrl));
    store->settings().set(SettingStore::kPublicUrl, "https://one.example");
    store->settings().set(SettingStore::kPublicUrl, "");
    reopen();

    EXPECT_EQ("", store->settings().find(SettingStore::kPublicUrl));
}

}  // namespace
}  // namespace kolvan::server
