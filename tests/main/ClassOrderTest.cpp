#include "tests/support/ClassOrder.h"

#include "agent/Agent.h"
#include "agent/IAgent.h"
#include "agent/OperationProgressAggregator.h"
#include "basekit2/process/IProcess.h"
#include "collector/Collector.h"
#include "collector/CollectorProcess.h"
#include "collector/ICollector.h"
#include "collector/ICollectorProcess.h"
#include "collector/ProcessReader.h"
#include "collector/RunningCollection.h"
#include "operations/Operations.h"
#include "server/IServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

// The interfaces are a binary contract: what is built against one version of them is linked with
// another. A virtual function that changes its place is called under another's name, and nothing
// else would tell. The same goes for the data of the classes.

using cagnt1::Agent;
using cagnt1::operations::Collector;
using cagnt1::operations::CollectorProcess;
using cagnt1::operations::Operations;
using cagnt1::operations::ProcessReader;
using cagnt1::operations::RunningCollection;
using OperationMessenger = cagnt1::IAgent::IOperations::OperationMessenger;

namespace kolvan::test {

using Offsets = std::vector<std::ptrdiff_t>;

Offsets memberOffsets(const Agent*);
Offsets memberOffsets(const Operations*);
Offsets memberOffsets(const Collector*);
Offsets memberOffsets(const CollectorProcess*);
Offsets memberOffsets(const RunningCollection*);
Offsets memberOffsets(const OperationMessenger*);
Offsets memberOffsets(const ProcessReader*);

template struct MemberOrder<Agent, &Agent::agentUuid, &Agent::accessToken, &Agent::server,
                            &Agent::operations, &Agent::stateMutex, &Agent::state,
                            &Agent::stateChanged, &Agent::runningOperations,
                            &Agent::connectionTask>;
template struct MemberOrder<
    Operations, &Operations::collector, &Operations::server, &Operations::targetPackageReady,
    &Operations::buildVersion, &Operations::targetPackageLocation,
    &Operations::x86TargetPackageArchiveName, &Operations::x64TargetPackageArchiveName>;
template struct MemberOrder<Collector, &Collector::installDirectory,
                            &Collector::targetPackageDirectory, &Collector::collectorExecutablePath,
                            &Collector::collection, &Collector::collectionMutex,
                            &Collector::processes, &Collector::processesMutex>;
template struct MemberOrder<CollectorProcess, &CollectorProcess::executablePath,
                            &CollectorProcess::workingDirectory, &CollectorProcess::arguments,
                            &CollectorProcess::process, &CollectorProcess::feedbackReader,
                            &CollectorProcess::stdoutReader, &CollectorProcess::stderrReader>;
template struct MemberOrder<RunningCollection, &RunningCollection::resultDirectory,
                            &RunningCollection::optionFilePath, &RunningCollection::collector,
                            &RunningCollection::finished>;
template struct MemberOrder<OperationMessenger, &OperationMessenger::onFeedback,
                            &OperationMessenger::onStdout, &OperationMessenger::onStderr>;
template struct MemberOrder<ProcessReader, &ProcessReader::callback, &ProcessReader::attached>;

namespace {

using testing::ElementsAre;
using Slots = std::vector<std::ptrdiff_t>;

struct Sample {
    virtual ~Sample() = default;
    virtual void first() {}
    virtual void second() {}
    void none() {}
    int one = 0;
    int two = 0;
};

/// Whether the members lie in memory in the order in which they have been named.
template <typename Class>
bool isInOrder() {
    const Offsets offsets = memberOffsets(static_cast<const Class*>(nullptr));
    return std::is_sorted(offsets.begin(), offsets.end(), std::less_equal<>());
}

TEST(ClassOrderTest, IsToldByPointersToMembers) {
    EXPECT_EQ(2, virtualSlot(&Sample::first));
    EXPECT_EQ(3, virtualSlot(&Sample::second));
    EXPECT_EQ(-1, virtualSlot(&Sample::none));
    EXPECT_LT(offsetOf(&Sample::one), offsetOf(&Sample::two));
}

TEST(ClassOrderTest, VirtualFunctionsOfIServer) {
    using cagnt1::IServer;
    const Slots slots{virtualSlot(&IServer::sendMessages),
                      virtualSlot(&IServer::downloadTargetPackage),
                      virtualSlot(&IServer::uploadTraceFile)};

    EXPECT_THAT(slots, ElementsAre(2, 3, 4));
}

TEST(ClassOrderTest, VirtualFunctionsOfIAgent) {
    using cagnt1::IAgent;
    const Slots slots{virtualSlot(&IAgent::waitUntilStopped), virtualSlot(&IAgent::disconnect)};

    EXPECT_THAT(slots, ElementsAre(2, 3));
}

TEST(ClassOrderTest, VirtualFunctionsOfIOperations) {
    using IOperations = cagnt1::IAgent::IOperations;
    const Slots slots{
        virtualSlot(&IOperations::onConnect),         virtualSlot(&IOperations::onDisconnect),
        virtualSlot(&IOperations::onError),           virtualSlot(&IOperations::execute),
        virtualSlot(&IOperations::performCollection), virtualSlot(&IOperations::collectionCommand),
        virtualSlot(&IOperations::cancelOperations)};

    EXPECT_THAT(slots, ElementsAre(2, 3, 4, 5, 6, 7, 8));
}

TEST(ClassOrderTest, VirtualFunctionsOfICollector) {
    using cagnt1::operations::ICollector;
    using cagnt1::operations::ICommandRunner;
    const Slots slots{
        virtualSlot(&ICommandRunner::execute),     virtualSlot(&ICollector::version),
        virtualSlot(&ICollector::install),         virtualSlot(&ICollector::uninstall),
        virtualSlot(&ICollector::startCollection), virtualSlot(&ICollector::sendCollectionCommand),
        virtualSlot(&ICollector::cancel)};

    EXPECT_THAT(slots, ElementsAre(2, 3, 4, 5, 6, 7, 8));
}

TEST(ClassOrderTest, VirtualFunctionsOfICollectorProcess) {
    using cagnt1::operations::ICollectorProcess;
    const Slots slots{virtualSlot(&ICollectorProcess::start), virtualSlot(&ICollectorProcess::wait),
                      virtualSlot(&ICollectorProcess::terminate)};

    EXPECT_THAT(slots, ElementsAre(2, 3, 4));
}

TEST(ClassOrderTest, VirtualFunctionsOfReaders) {
    const Slots slots{virtualSlot(&ProcessReader::add_ref), virtualSlot(&ProcessReader::release),
                      virtualSlot(&ProcessReader::get_type), virtualSlot(&ProcessReader::onData),
                      virtualSlot(&ProcessReader::attach)};

    EXPECT_THAT(slots, ElementsAre(0, 1, 2, 5, 6));
}

// Others may stand between them; their order counts.
TEST(ClassOrderTest, VirtualFunctionsOfIProcess) {
    using basekit2::process::IProcess;
    const Slots slots{virtualSlot(&IProcess::start), virtualSlot(&IProcess::connectOutputStream),
                      virtualSlot(&IProcess::openOutputPipe), virtualSlot(&IProcess::wait),
                      virtualSlot(&IProcess::terminate)};

    EXPECT_EQ(0, virtualSlot(&IProcess::add_ref));
    EXPECT_EQ(1, virtualSlot(&IProcess::release));
    EXPECT_EQ(5, virtualSlot(&IProcess::start));
    EXPECT_TRUE(std::is_sorted(slots.begin(), slots.end(), std::less_equal<>()));
}

TEST(ClassOrderTest, DataOfTheAgent) {
    EXPECT_TRUE(isInOrder<Agent>());
    EXPECT_TRUE(isInOrder<OperationMessenger>());
}

TEST(ClassOrderTest, DataOfTheOperations) {
    EXPECT_TRUE(isInOrder<Operations>());
}

TEST(ClassOrderTest, DataOfTheCollector) {
    EXPECT_TRUE(isInOrder<Collector>());
    EXPECT_TRUE(isInOrder<RunningCollection>());
    EXPECT_TRUE(isInOrder<CollectorProcess>());
}

TEST(ClassOrderTest, DataOfTheReaders) {
    EXPECT_TRUE(isInOrder<ProcessReader>());
}

TEST(ClassOrderTest, ValuesOfTheEnumerations) {
    using cagnt1::AgentState;
    using cagnt1::OutputChannel;

    EXPECT_EQ(0, static_cast<int>(AgentState::Created));
    EXPECT_EQ(1, static_cast<int>(AgentState::Connected));
    EXPECT_EQ(2, static_cast<int>(AgentState::Stopping));
    EXPECT_EQ(3, static_cast<int>(AgentState::Stopped));
    EXPECT_EQ(0, static_cast<int>(OutputChannel::Feedback));
    EXPECT_EQ(1, static_cast<int>(OutputChannel::Stdout));
    EXPECT_EQ(2, static_cast<int>(OutputChannel::Stderr));
}

}  // namespace
}  // namespace kolvan::test
