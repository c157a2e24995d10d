#pragma once

#include "tests/endtoend/AgentScene.h"
#include "tests/soak/AgentCounts.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>

// Very many operations at once: an agent whose collector is made for that
// (tests/faults/crowd_collector.cpp), the crowds that it is asked to run, and the audit that
// follows each of them.
namespace kolvan::test {

/// Limits of open descriptors that an agent is started with.
struct DescriptorLimits {
    rlim_t soft;
    rlim_t hard;  ///< a machine that does not allow as much gives what it allows

    /// "Soft1024Hard4096".
    std::string name() const;
};

/// The pairs under which crowds are tried: as service managers give them, as shells do, and small
/// ones, under which a crowd does not fit into the agent.
extern const std::vector<DescriptorLimits> kDescriptorLimits;

/// So many runs of the collector that are asked for by one reply. Every one has a number, lines of
/// output and an exit code of its own.
class Crowd {
public:
    /// @param name goes before the numbers in the ids
    /// @param leash where it is given, the runs wait on it
    Crowd(std::string name, int size, const Leash* leash = nullptr);

    /// Lets the last run, and no other, wait on the leash.
    static Crowd withLastOneHeld(std::string name, int size, const Leash& leash);

    int size() const { return count; }
    std::string id(int number) const { return name + "-" + std::to_string(number); }
    int code(int number) const { return number % 100; }

    /// The whole output of a run.
    std::string output(int number, const DescriptorLimits& limits) const;

    std::vector<AgentMessage> commands() const;

private:
    const std::string name;
    const int count;
    const std::string leashPath;
    bool isFirstHeld = true;  // and with it all but the last
};

/// An agent for crowds, connected and with nothing to do.
///
/// Its log goes to the null device. What is found wrong is a failure of the test.
class CrowdScene {
public:
    /// What a run may end with besides its own code.
    enum class Endings {
        Own,       ///< nothing
        Cancelled  ///< a cancel has come while it ran or waited for its turn
    };

    explicit CrowdScene(const DescriptorLimits& limits, const SceneSettings& settings = {});

    AgentScene scene;

    ProfilingServer& server() { return scene.server(); }
    AgentProcess& agent() { return *process; }

    /// Puts a reply together that the agent has taken and handled when this returns. Nothing else
    /// may be waiting to be sent.
    /// @return false when the agent has not asked for more afterwards
    bool deliver(const std::vector<AgentMessage>& commands);

    /// Blocks until one of the runs has told that it has begun.
    bool waitForFirst(const Crowd& crowd);

    /// Blocks until all runs, or all but the last, have ended.
    /// @return false when one of them does not end
    bool waitForEnds(const Crowd& crowd);
    bool waitForAllButTheLast(const Crowd& crowd);

    /// Fails the test unless each run has ended exactly once, with its own code and its whole
    /// output, which tells the limits that the agent was started with.
    void audit(const Crowd& crowd, Endings endings = Endings::Own);

    /// Fails the test unless the agent asks for commands and has as many threads, descriptors and
    /// children as before the first crowd.
    void auditIdleAgent();

    /// Fails the test unless the agent's life was in order up to its end.
    /// @param ending as `AgentProcess::waitForEnd` gave it
    void auditEnd(const std::string& ending);

private:
    std::string problemOf(const Crowd& crowd, int number, Endings endings);

    DescriptorLimits limits;  // as they are on this machine
    std::optional<AgentProcess> process;
    soak::AgentCounts idle;
};

/// Numbers of the agent's children, zombies included.
std::vector<pid_t> childrenOf(pid_t process);

/// Lets the agent live through so many crowds, one after the other.
void expectCrowdsToEnd(const DescriptorLimits& limits, int size, int rounds);

}  // namespace kolvan::test
