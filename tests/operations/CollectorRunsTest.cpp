#include "operations/CollectorRuns.h"

#include "collector/ICollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace cagnt1::operations {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A collector that does nothing, and says when it goes.
class IdleCollector : public ICollector {
public:
    explicit IdleCollector(std::function<void()> whenGone = [] {}) : atEnd(std::move(whenGone)) {}
    ~IdleCollector() override { atEnd(); }

    IdleCollector(const IdleCollector&) = delete;
    IdleCollector& operator=(const IdleCollector&) = delete;

    int execute(const std::vector<std::string>&, OperationMessenger&) override { return 0; }
    std::string version() override { return ""; }
    bool install(const std::string&) override { return true; }
    bool uninstall() override { return true; }
    int startCollection(std::string, OperationMessenger&) override { return 0; }
    int sendCollectionCommand(std::string, OperationMessenger&) override { return 0; }
    bool cancel() override { return true; }

private:
    const std::function<void()> atEnd;
};

class CollectorRunsTest : public testing::Test {
protected:
    const std::shared_ptr<ICollector> first = std::make_shared<IdleCollector>();
    const std::shared_ptr<ICollector> second = std::make_shared<IdleCollector>();
    CollectorRuns runs;
};

TEST_F(CollectorRunsTest, NobodyIsBusyAtFirst) {
    EXPECT_THAT(runs.busyCollectors(), IsEmpty());
}

TEST_F(CollectorRunsTest, BusyCollectorsAreListedOnceEachTheLongestBusyOneFirst) {
    const auto one = runs.begin(second);
    const auto two = runs.begin(first);
    const auto three = runs.begin(second);
    const auto four = runs.beginCommand(first);

    EXPECT_THAT(runs.busyCollectors(), ElementsAre(second, first));
}

// To end a collection takes as long as the collection likes: the others are asked before.
TEST_F(CollectorRunsTest, CollectorThatCollectsIsListedOnceAndLast) {
    const auto collection = runs.beginCollection(first);
    const auto run = runs.begin(second);
    const auto command = runs.beginCommand(second);

    EXPECT_THAT(runs.busyCollectors(), ElementsAre(second, first));
}

TEST_F(CollectorRunsTest, RunIsListedUntilItEnds) {
    const auto run = runs.begin(first);
    { const auto other = runs.begin(second); }

    EXPECT_THAT(runs.busyCollectors(), ElementsAre(first));
}

TEST_F(CollectorRunsTest, CollectionAndCommandGoToTheCollectorThatCollects) {
    const auto collection = runs.beginCollection(first);

    EXPECT_EQ(first.get(), runs.beginCollection(second).operator->());
    EXPECT_EQ(first.get(), runs.beginCommand(second).operator->());
}

TEST_F(CollectorRunsTest, OtherRunsGoToTheCollectorThatIsAskedFor) {
    const auto collection = runs.beginCollection(first);

    EXPECT_EQ(second.get(), runs.begin(second).operator->());
}

TEST_F(CollectorRunsTest, RunsAndCommandsAreNoCollections) {
    const auto run = runs.begin(first);
    const auto command = runs.beginCommand(first);

    EXPECT_EQ(second.get(), runs.beginCommand(second).operator->());
    EXPECT_EQ(second.get(), runs.beginCollection(second).operator->());
}

TEST_F(CollectorRunsTest, CollectionThatHasEndedAttractsNothing) {
    { const auto collection = runs.beginCollection(first); }

    EXPECT_EQ(second.get(), runs.beginCommand(second).operator->());
}

// The last owner of a collector waits for its end, which may take long.
TEST_F(CollectorRunsTest, CollectorThatGoesWithItsRunHoldsNobodyUp) {
    std::optional<std::size_t> busy;
    {
        const auto run = runs.begin(
            std::make_shared<IdleCollector>([&] { busy = runs.busyCollectors().size(); }));
    }

    EXPECT_EQ(0U, busy);
}

}  // namespace
}  // namespace cagnt1::operations
