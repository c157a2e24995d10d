#pragma once

#include "companions/server/store/Records.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Everything that the server keeps, behind one interface. Whoever uses it can tell neither which
/// database does the work nor whether other servers use the same one.
///
/// For all of it:
///  - Threads: any member from any thread. All of them block on the disk: call them on the pool,
///  never on
///    the network thread.
///  - A call that changes something has done it for good when it returns, and has done nothing when
///  it
///    throws; a crash of process or machine comes before it or after it. Those marked "soon" are
///    the exception: a crash of the machine (not of the process) may lose the last seconds of them.
///  - Lists are in the order in which things came to be, not in the order of their times.
///  - @throws StoreError
namespace kolvan::server {

/// Keeps a wake-up alive; its end is the end of the calls.
class Subscription {
public:
    virtual ~Subscription() = default;
};

/// How those who wait learn that something has changed, in this server or in another one.
///
/// `wake` runs on any thread, without a lock of the store. It must be brief, must not throw, and
/// may call nothing of the store: its task is to wake somebody who then looks. It may be called
/// although nothing has changed. Once the subscription's destructor has returned, no call runs and
/// none will come; a subscription is therefore not destroyed inside of its own call.
///
/// To miss nothing: subscribe first, look then, wait last.
class WakeUps {
public:
    using Wake = std::function<void()>;

    virtual ~WakeUps() = default;

    /// There may be a command for this agent, or its token may have been revoked.
    virtual std::unique_ptr<Subscription> onCommands(const AgentId& agent, Wake wake) = 0;

    /// The collection, its output or its files may have changed, or it was removed.
    virtual std::unique_ptr<Subscription> onCollection(const CollectionId& collection,
                                                       Wake wake) = 0;

    /// A session, or the token of a program or of agents, may have ended.
    virtual std::unique_ptr<Subscription> onEndOfAccess(Wake wake) = 0;
};

/// Which agent is which, and the tokens with which they come.
class AgentStore {
public:
    virtual ~AgentStore() = default;

    /// @throws StoreError with `NameTaken` when a token of that name is in use
    virtual AgentToken addToken(const std::string& name, bool shared, const Sha256& hash) = 0;

    /// The token with this hash, unless it was revoked.
    virtual std::optional<AgentToken> findToken(const Sha256& hash) const = 0;

    /// All of them, revoked ones too.
    virtual std::vector<AgentToken> listTokens() const = 0;

    /// Ends a token's right, and wakes the polls of its agents. @return whether it had one
    virtual bool revokeToken(const AgentTokenId& token) = 0;

    /// Whether the token with which the agent connected last may still be used.
    virtual bool hasValidToken(const AgentId& agent) const = 0;

    /// What a process of the agent may expect. @param uuid of its start
    virtual Standing standing(const AgentId& agent, const std::string& uuid) const = 0;

    /// Records that an agent has connected. It is the one that came with a token of the same name
    /// before or, when that token is shared, with the same token name and host name; otherwise a
    /// new one. When its uuid is another one than before, the agent has started anew: what it had
    /// taken and not finished will never be finished and is given up as `OperationStore::abandon`
    /// does. What is queued stays queued.
    /// @throws StoreError with `NotFound` when the token does not exist or was revoked
    virtual Agent connect(const AgentConnect& connect) = 0;

    virtual std::optional<Agent> find(const AgentId& agent) const = 0;

    /// The agent whose latest start has this uuid and came with this token.
    virtual std::optional<Agent> findStarted(const AgentTokenId& token,
                                             const std::string& uuid) const = 0;

    virtual Page<Agent> list(const AgentFilter& filter, const PageRequest& page) const = 0;

    /// How many agents there are, by their presence; those of which there is none are left out.
    virtual std::map<AgentPresence, std::uint64_t> count() const = 0;

    /// Sets `lastSeen` of many agents to now; those that were lost are connected again. Soon. Ids
    /// that do not exist are left out.
    virtual void noteSeen(std::span<const AgentId> agents) = 0;

    /// Shows a connected agent as lost, unless its `lastSeen` is another one by now. Soon.
    virtual void markLost(const AgentId& agent, UtcTime lastSeen) = 0;

    /// Shows an agent as left, and wakes its poll, unless it has started anew since the start with
    /// this uuid. Soon.
    virtual void leave(const AgentId& agent, const std::string& uuid) = 0;

    /// Soon.
    virtual void setCollectorVersion(const AgentId& agent, const std::string& version) = 0;
};

/// The agents' queues of commands, and what became of each command.
class OperationStore {
public:
    virtual ~OperationStore() = default;

    /// Puts a command at the end of its agent's queue and wakes its poll.
    /// @throws StoreError with `NotFound` when there is no such agent
    virtual Operation enqueue(const AgentId& agent, const NewOperation& operation) = 0;

    /// Takes the first `most` commands out of an agent's queue, for a reply that is written next.
    /// From here on none of them is handed out again unless `giveBack` or `sendAgain` says so, and
    /// nothing that was queued later is taken before it is known whether they were written: what is
    /// given back comes before it. What a server before this one has left open is not waited for,
    /// nor anything for longer than half a minute.
    /// An agent refuses a second collection while one runs. So one start is taken at a time; those
    /// behind it stay in the queue, and others pass them, until its operation has ended.
    virtual std::vector<Operation> take(const AgentId& agent, std::size_t most) = 0;

    /// Puts taken commands back to where they were in the queue, because their reply was not
    /// written, and wakes the agent's poll. One that its agent has spoken of meanwhile is left as
    /// it is.
    virtual void giveBack(std::span<const OperationId> operations) = 0;

    /// Records that the reply with these commands was written whole, and wakes the agent's poll:
    /// what was queued since may go. Soon.
    virtual void markWritten(std::span<const OperationId> operations) = 0;

    /// Records that the agent has spoken of an operation. The first time a waiting collection
    /// becomes a running one. @return whether there is such an operation of this agent, and it has
    /// not ended
    virtual bool confirm(const AgentId& agent, const OperationId& operation) = 0;

    /// Records the end of an operation; when it carries out a collection, that one ends in
    /// `outcome`.
    /// @param outcome a final state; looked at only for the start of a collection
    /// @return whether it had not ended before, and is this agent's
    virtual bool finish(const AgentId& agent, const OperationId& operation,
                        std::optional<int> exitCode, const std::string& errorMessage,
                        CollectionState outcome) = 0;

    /// Sends a command again that was taken and of which nothing was heard: the old one is
    /// abandoned and a copy with an id of its own put at the end of the queue. A late word of the
    /// old one changes nothing but the old one.
    /// @return the copy; nothing when the operation is not one of these
    virtual std::optional<Operation> sendAgain(const OperationId& operation) = 0;

    /// Gives up what an agent has taken and not finished, because it will not finish it any more.
    /// The collections among it fail with `reason`.
    virtual void abandon(const AgentId& agent, const std::string& reason) = 0;

    virtual std::optional<Operation> find(const OperationId& operation) const = 0;

    /// Operations of an agent that have not ended, oldest first.
    virtual std::vector<Operation> listOpen(const AgentId& agent) const = 0;

    /// The latest operation of a kind for an agent, whatever its state.
    virtual std::optional<Operation> findLatest(const AgentId& agent, OperationKind kind) const = 0;

    /// The latest operation of a kind for an agent that has ended with exit code 0.
    virtual std::optional<Operation> findLatestDone(const AgentId& agent,
                                                    OperationKind kind) const = 0;

    /// Forgets operations that belong to no collection and have ended, except for the latest `keep`
    /// of each kind of each agent. @return those forgotten, whose output may be removed
    virtual std::vector<OperationId> removeEnded(std::size_t keep) = 0;

    /// Records how much of a channel is in its file. Soon: the file itself is the truth, this
    /// number is for those who list and wait.
    virtual void setOutputSize(const OperationId& operation, OutputChannel channel,
                               std::uint64_t sizeBytes) = 0;

    /// 0 when nothing was recorded.
    virtual std::uint64_t outputSize(const OperationId& operation, OutputChannel channel) const = 0;
};

/// What was wanted with a collection, and whether it was possible.
enum class Asked {
    Yes,      ///< done: queued for the agent, or, where the agent had not seen it yet, done at once
    TooLate,  ///< its state does not allow it (any more)
    NotFound,  ///< there is no such collection
};

class CollectionStore {
public:
    virtual ~CollectionStore() = default;

    /// Makes a collection, and queues the operation that carries it out.
    /// @throws StoreError with `NotFound` when there is no such agent
    virtual Collection create(const NewCollection& collection, const NewOperation& start) = 0;

    virtual std::optional<Collection> find(const CollectionId& collection) const = 0;
    virtual Page<Collection> list(const CollectionFilter& filter,
                                  const PageRequest& page) const = 0;

    /// How many collections there are, by their state; those of which there is none are left out.
    virtual std::map<CollectionState, std::uint64_t> count() const = 0;

    /// Queues `command`, which asks a collection to end early with what it has; it is "stopping"
    /// then. One whose start was not confirmed yet, or that is stopping already, can not be
    /// stopped.
    virtual Asked stop(const CollectionId& collection, const NewOperation& command) = 0;

    /// Cancels a collection. When its start is still queued, that is withdrawn, and the collection
    /// is cancelled at once. Otherwise `command` is queued, also while it stops.
    virtual Asked cancel(const CollectionId& collection, const NewOperation& command) = 0;

    /// Queues `command` for a collection that is running.
    virtual Asked command(const CollectionId& collection, const NewOperation& command) = 0;

    /// What is empty stays as it is. @return whether there is such a collection
    virtual bool rename(const CollectionId& collection, const std::optional<std::string>& name,
                        const std::optional<std::string>& note) = 0;

    /// Forgets a collection that has ended, its operations and files. Whoever calls removes the
    /// files' contents first.
    virtual Asked remove(const CollectionId& collection) = 0;

    /// Records that an upload begins, anew if there was one of that name. Soon, as its end: nobody
    /// forces the file itself onto the disk. @return whether there is such a collection
    virtual bool beginFile(const CollectionId& collection, const std::string& name) = 0;

    /// Records that an upload is whole. Soon. @return whether it had begun
    virtual bool completeFile(const CollectionId& collection, const std::string& name,
                              std::uint64_t sizeBytes) = 0;

    /// In the order of their names.
    virtual std::vector<CollectionFile> listFiles(const CollectionId& collection) const = 0;
};

/// Whether a change of users was possible.
enum class UserChange {
    Made,
    NotFound,
    LastAdministrator,  ///< nobody would be left who may add users
};

/// Users, sessions and the tokens of programs.
class AccountStore {
public:
    virtual ~AccountStore() = default;

    /// @throws StoreError with `NameTaken`
    virtual User addUser(const std::string& name, Role role, const std::string& passwordHash) = 0;

    virtual std::optional<User> findUser(const UserId& user) const = 0;
    virtual std::optional<User> findUser(const std::string& name) const = 0;

    /// In the order of their names.
    virtual std::vector<User> listUsers() const = 0;

    /// Changes what is given. A new password or role ends the user's sessions.
    virtual UserChange changeUser(const UserId& user, std::optional<Role> role,
                                  const std::optional<std::string>& passwordHash) = 0;

    /// Replaces a password's hash by another of the same password, which ends no session. One that
    /// is no longer `former` stays: somebody has changed the password meanwhile.
    virtual void rehashPassword(const UserId& user, const std::string& former,
                                const std::string& passwordHash) = 0;

    /// Replaces a password, and ends the user's sessions.
    /// @return whether the hash was still `former`; if not, nothing has changed
    virtual bool replacePassword(const UserId& user, const std::string& former,
                                 const std::string& passwordHash) = 0;

    /// Removes a user with the sessions.
    virtual UserChange removeUser(const UserId& user) = 0;

    /// Puts a one-time code in place of the one before; only its hash is kept.
    virtual void setFirstLoginCode(const Sha256& hash, UtcTime validUntil) = 0;

    /// Makes the first user, an administrator, for somebody who knows the code; the code is used
    /// up.
    /// @return nothing when there is a user already, or no such code, or `now` is too late for it
    virtual std::optional<User> addFirstUser(const Sha256& codeHash, UtcTime now,
                                             const std::string& name,
                                             const std::string& passwordHash) = 0;

    /// Adds a session of a user who has shown the password with this hash.
    /// @return whether it still is the user's; if not, there is no session
    virtual bool addSession(const Session& session, const std::string& passwordHash) = 0;
    virtual std::optional<Session> findSession(const Sha256& hash) const = 0;

    /// Sets `lastUsed` to now. Soon.
    virtual void touchSession(const Sha256& hash) = 0;

    /// @return whether there was one
    virtual bool removeSession(const Sha256& hash) = 0;

    /// Removes sessions made or last used before these moments.
    virtual void removeOldSessions(UtcTime madeBefore, UtcTime usedBefore) = 0;

    /// @throws StoreError with `NameTaken` when a token of that name is in use
    virtual ApiToken addToken(const std::string& name, Role role, const std::string& madeBy,
                              const Sha256& hash) = 0;

    /// The token with this hash, unless it was revoked.
    virtual std::optional<ApiToken> findToken(const Sha256& hash) const = 0;

    /// Sets `lastUsed` to now. Soon.
    virtual void touchToken(const ApiTokenId& token) = 0;

    /// All of them, revoked ones too.
    virtual std::vector<ApiToken> listTokens() const = 0;

    /// @return whether it could still be used
    virtual bool revokeToken(const ApiTokenId& token) = 0;
};

class AuditStore {
public:
    virtual ~AuditStore() = default;

    /// `number` and `time` of the line are the store's.
    virtual void append(const AuditLine& line) = 0;
    virtual Page<AuditLine> list(const AuditFilter& filter, const PageRequest& page) const = 0;

    /// Keeps the newest lines only. @return how many were removed
    virtual std::uint64_t keepNewest(std::uint64_t count) = 0;
};

class PackageStore {
public:
    virtual ~PackageStore() = default;

    /// Puts a package in place of what has its name or its architecture. `added` is the store's.
    virtual void put(const Package& package) = 0;
    virtual std::optional<Package> find(const std::string& name) const = 0;
    virtual std::vector<Package> list() const = 0;
};

class SettingStore {
public:
    static constexpr std::string_view kPublicUrl = "publicUrl";

    virtual ~SettingStore() = default;

    virtual std::optional<std::string> find(std::string_view name) const = 0;
    virtual void set(std::string_view name, const std::string& value) = 0;
};

/// All of it. The parts live as long as the store.
class Store {
public:
    virtual ~Store() = default;

    virtual AgentStore& agents() = 0;
    virtual OperationStore& operations() = 0;
    virtual CollectionStore& collections() = 0;
    virtual AccountStore& accounts() = 0;
    virtual AuditStore& audit() = 0;
    virtual PackageStore& packages() = 0;
    virtual SettingStore& settings() = 0;
    virtual WakeUps& wakeUps() = 0;

    /// Version of the layout in which the data are kept.
    virtual int schemaVersion() const = 0;

    /// Finds out whether changes can be kept, by making one.
    /// @throws StoreError with the reason when they cannot
    virtual void tryToWrite() = 0;

    /// Writes a copy of everything, as it is at one moment, into a new file; others go on
    /// meanwhile.
    /// @throws StoreError when the file is there already or cannot be written; nothing is left of
    /// it then
    virtual void backUp(const std::string& file) = 0;
};

}  // namespace kolvan::server
