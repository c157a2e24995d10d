#include "basekit2/object_registry.h"

#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using basekit2::get_object_registry;
using basekit2::object_registry_t;

const std::string& registeredBeforeMain =
    get_object_registry().register_type("registered before main", false);

TEST(ObjectRegistryTest, CanBeUsedDuringStaticInitialisation) {
    EXPECT_EQ("registered before main", registeredBeforeMain);
    EXPECT_TRUE(get_object_registry().is_registered("registered before main"));
}

TEST(ObjectRegistryTest, IsOneForTheWholeProcess) {
    EXPECT_EQ(&get_object_registry(), &get_object_registry());
}

TEST(ObjectRegistryTest, KnowsWhatHasBeenRegisteredAndNothingElse) {
    object_registry_t registry;

    registry.register_type("known", false);

    EXPECT_TRUE(registry.is_registered("known"));
    EXPECT_FALSE(registry.is_registered("unknown"));
    EXPECT_FALSE(registry.is_registered(""));
}

TEST(ObjectRegistryTest, GivesTheSameTextForTheSameName) {
    object_registry_t registry;
    std::string name = "shared";
    const std::string& first = registry.register_type(name, false);

    name = "changed afterwards";

    EXPECT_EQ("shared", first);
    EXPECT_EQ(&first, &registry.register_type("shared", false));
}

TEST(ObjectRegistryTest, TextsStayWhereTheyAreWhenOthersJoin) {
    object_registry_t registry;
    const std::string& first = registry.register_type("first", false);
    const std::string* const address = &first;

    for (int i = 0; i < 1000; ++i) {
        registry.register_type("other " + std::to_string(i), true);
    }

    EXPECT_EQ(address, &registry.register_type("first", false));
    EXPECT_EQ("first", first);
}

TEST(ObjectRegistryTest, ExclusiveNameMustBeNew) {
    object_registry_t registry;
    registry.register_type("taken", false);

    EXPECT_THROW(registry.register_type("taken", true), std::logic_error);
    EXPECT_NO_THROW(registry.register_type("free", true));
    EXPECT_THROW(registry.register_type("free", true), std::logic_error);
}

TEST(ObjectRegistryTest, ExclusiveNameCanBeSharedLater) {
    object_registry_t registry;
    const std::string& first = registry.register_type("name", true);

    EXPECT_EQ(&first, &registry.register_type("name", false));
}

TEST(ObjectRegistryTest, OneTextForANameThatManyThreadsRegister) {
    object_registry_t registry;
    constexpr int kThreads = 8;
    std::latch together(kThreads);
    std::vector<std::future<const std::string*>> threads;

    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::async(std::launch::async, [&registry, &together, i] {
            together.arrive_and_wait();
            const std::string* address = nullptr;
            for (int round = 0; round < 500; ++round) {
                registry.register_type("own " + std::to_string(i) + std::to_string(round), true);
                address = &registry.register_type("common", false);
                EXPECT_TRUE(registry.is_registered("common"));
            }
            return address;
        }));
    }
    std::set<const std::string*> addresses;
    for (auto& thread : threads) {
        addresses.insert(thread.get());
    }

    EXPECT_EQ(1U, addresses.size());
}

TEST(ObjectRegistryTest, TypesWithoutANameShareOneThatIsRegistered) {
    const std::string& name = basekit2::get_none_type();

    EXPECT_EQ("dasID_None", name);
    EXPECT_EQ(&name, &basekit2::get_object_registry().register_type("dasID_None", false));
}

}  // namespace
