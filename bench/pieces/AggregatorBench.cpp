#include "agent/OperationProgressAggregator.h"
#include "server/AgentConfiguration.h"
#include "server/IServer.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace {

using cagnt1::Agent;
using cagnt1::IAgent;

// Takes everything and says nothing; the request for commands is held until the end.
class SilentServer : public cagnt1::IServer {
public:
    std::string sendMessages(const std::string& json) override {
        if (json.find(R"("connect")") != std::string::npos) {
            return R"({"messages":[{"messageType":"connected"}]})";
        }
        if (json.find(R"("commands:get")") != std::string::npos) {
            ended.wait();
        } else if (json.find(R"("disconnect")") != std::string::npos) {
            end.set_value();
        }
        return {};
    }
    bool downloadTargetPackage(const std::string&, const std::string&) override { return false; }
    bool uploadTraceFile(const std::string&, const std::string&) override { return false; }

private:
    std::promise<void> end;
    std::shared_future<void> ended = end.get_future();
};

class NoOperations : public IAgent::IOperations {
public:
    void onConnect() override {}
    void onDisconnect() override {}
    void onError(const std::string&) override {}
    int execute(std::vector<std::string>, OperationMessenger&&) override { return 0; }
    int performCollection(std::string, std::string, OperationMessenger&&) override { return 0; }
    int collectionCommand(std::string, OperationMessenger&&) override { return 0; }
    void cancelOperations() override {}
};

// Pieces go in; what has been gathered goes out as one message for every 256 of them.
void gather(benchmark::State& state) {
    Agent agent({}, std::make_shared<SilentServer>(), std::make_shared<NoOperations>());
    const auto aggregator = std::make_shared<Agent::OperationProgressAggregator>(
        cagnt1::OutputChannel::Stdout, agent, "1");
    const std::string piece(static_cast<std::size_t>(state.range(0)), 'x');
    std::size_t pieces = 0;
    for (auto _ : state) {
        aggregator->send(piece);
        if (++pieces % 256 == 0) {
            aggregator->flush();
        }
    }
    aggregator->close();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(gather)->Name("Aggregator/gather and send")->Arg(80)->Arg(4096)->Arg(65536);

}  // namespace
