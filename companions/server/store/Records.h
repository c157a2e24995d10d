#pragma once

#include "companions/server/base/Id.h"
#include "companions/server/base/Sha256.h"
#include "companions/server/base/UtcTime.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the server keeps, as plain values. The store hands out copies: a record is as it was when
/// it was read. Times are stamped by the store.
namespace kolvan::server {

struct Agent;
struct AgentToken;
struct Operation;
struct Collection;
struct User;
struct ApiToken;

using AgentId = Id<Agent>;
using AgentTokenId = Id<AgentToken>;
using OperationId = Id<Operation>;
using CollectionId = Id<Collection>;
using UserId = Id<User>;
using ApiTokenId = Id<ApiToken>;

// ---- Pages

/// Which part of a long list is wanted.
struct PageRequest {
    std::size_t size = 50;  ///< most items on the page; 1 or more
    std::string after;      ///< `Page::next` of the page before; empty for the first one
};

/// A part of a list, newest first. What is added or removed meanwhile neither repeats nor hides
/// another item on a later page.
template <typename Item>
struct Page {
    std::vector<Item> items;
    std::string next;  ///< where the next page begins; empty on the last one
};

// ---- Agents

enum class AgentPresence {
    Connected,  ///< it polls
    Left,       ///< it has said "disconnect"
    Lost,       ///< it stopped polling without a word
};

/// What a process that is, or was, an agent may expect.
enum class Standing {
    Trusted,
    Revoked,  ///< the token with which the agent connected last may not be used any more
    Left,     ///< this very process has said "disconnect", and waits for nothing but its poll's end
};

/// The right of agents to connect. The token itself is kept nowhere.
struct AgentToken {
    AgentTokenId id;
    std::string name;     ///< unique among those that are not revoked
    bool shared = false;  ///< many machines have it: their host names tell them apart
    Sha256 hash;          ///< of the whole token, its prefix included
    UtcTime made;
    std::optional<UtcTime> revoked;
};

/// A machine with an agent on it. It stays the same one when the agent starts again.
struct Agent {
    AgentId id;
    std::string name;  ///< its token's name, or its host name when the token is shared
    std::string hostName;
    AgentTokenId token;   ///< with which it connected last
    std::string uuid;     ///< the "agentUuid" of its latest start
    std::string address;  ///< from where it connected last
    AgentPresence presence = AgentPresence::Lost;
    std::string collectorVersion;  ///< as its collector says; empty until it was asked
    UtcTime firstSeen;
    UtcTime lastSeen;
};

/// What an agent says of itself when it connects.
struct AgentConnect {
    AgentTokenId token;
    std::string hostName;
    std::string uuid;
    std::string address;
};

struct AgentFilter {
    std::optional<AgentPresence> presence;
    std::string text;  ///< a part of the name or host name, in any case; empty: all
};

// ---- Operations: what agents are told to do

enum class OperationKind {
    Collection,         ///< "collector:collection:start"
    CollectionCommand,  ///< "collector:collection:command"
    ProcessList,        ///< "collector:execute" with --list-processes
    Execute,            ///< any other "collector:execute"
    CancelAll,          ///< "collector:operations:cancel"
    Stop,               ///< "stop"
};

/// The way of an operation: Queued, Taken, Running, Finished. Its agent may finish one that it has
/// said nothing about before.
enum class OperationState {
    Queued,     ///< waits for a poll of its agent
    Taken,      ///< has been, or is just being, written into a reply; nothing was heard of it yet
    Running,    ///< its agent has spoken of it
    Finished,   ///< it has ended, well or badly: see `exitCode` and `errorMessage`
    Withdrawn,  ///< taken out of the queue before its agent saw it
    Abandoned,  ///< nobody waits for it any more: its agent started anew, or it was sent again
};

/// One message for an agent, and what became of it.
struct Operation {
    OperationId id;  ///< the protocol's "id"; new for each sending
    AgentId agent;
    OperationKind kind = OperationKind::Execute;
    std::optional<CollectionId> collection;
    std::string messageType;
    std::string parameters;  ///< a JSON object of strings, without "id"
    OperationState state = OperationState::Queued;
    UtcTime queued;
    std::optional<UtcTime> taken;
    std::optional<UtcTime> written;    ///< when the reply with it was given to the network whole
    std::optional<UtcTime> confirmed;  ///< when its agent first spoke of it
    std::optional<UtcTime> ended;
    std::optional<int> exitCode;
    std::string errorMessage;
};

struct NewOperation {
    OperationId id = OperationId::make();
    OperationKind kind = OperationKind::Execute;
    std::string messageType;
    std::string parameters = "{}";
};

enum class OutputChannel { Stdout, Stderr, Feedback };

// ---- Collections

enum class CollectionState {
    Waiting,   ///< its start is queued, or sent and not confirmed
    Running,   ///< its agent has spoken of it
    Stopping,  ///< it was asked to end
    Done,
    Failed,
    Cancelled,
};

/// Whether nothing follows this state.
constexpr bool isFinal(CollectionState state) noexcept {
    return state == CollectionState::Done || state == CollectionState::Failed ||
           state == CollectionState::Cancelled;
}

/// Whether a collection may go from one state to another in one step.
constexpr bool mayFollow(CollectionState from, CollectionState to) noexcept {
    switch (to) {
        case CollectionState::Waiting:
            return false;
        case CollectionState::Running:
            return from == CollectionState::Waiting;
        case CollectionState::Stopping:
            return from == CollectionState::Waiting || from == CollectionState::Running;
        default:
            return !isFinal(from);
    }
}

/// What is profiled, and how.
struct CollectionRequest {
    std::optional<std::int64_t> pid;                    ///< either this
    std::vector<std::string> command;                   ///< or this: program and arguments
    std::string profile = "cpu";                        ///< as the collector's option names it
    int frequency = 999;                                ///< looks a second
    std::optional<std::chrono::milliseconds> duration;  ///< none: until the target ends
    bool children = true;                               ///< also what the target starts
};

struct Collection {
    CollectionId id;
    AgentId agent;
    std::string name;
    std::string note;
    std::string madeBy;  ///< name of the user or token
    CollectionRequest request;
    CollectionState state = CollectionState::Waiting;
    OperationId start;  ///< the operation that carries it out; a later one after it was sent again
    std::optional<UtcTime> startTaken;      ///< when that was sent: with nothing heard for a while
                                            ///< after it, the start is "not confirmed"
    std::optional<UtcTime> startConfirmed;  ///< when the agent first spoke of it
    UtcTime made;
    std::optional<UtcTime> ended;
    std::optional<int> exitCode;
    std::string errorMessage;
};

struct NewCollection {
    CollectionId id = CollectionId::make();
    AgentId agent;
    std::string name;
    std::string note;
    std::string madeBy;
    CollectionRequest request;
};

/// What a filter leaves empty does not count.
struct CollectionFilter {
    std::optional<AgentId> agent;
    std::vector<CollectionState> states;
    std::string text;  ///< a part of the name or the note, in any case
    std::string madeBy;
    std::optional<UtcTime> madeFrom;   ///< this moment included
    std::optional<UtcTime> madeUntil;  ///< this moment excluded
};

/// A file that an agent has uploaded for a collection, or is just uploading.
struct CollectionFile {
    std::string name;  ///< relative path below the collection's directory, already found safe
    std::uint64_t sizeBytes = 0;
    bool complete = false;
    UtcTime changed;
};

// ---- Who may do what

enum class Role {
    Viewer,         ///< looks
    Engineer,       ///< and collects
    Administrator,  ///< and decides who may
};

struct User {
    UserId id;
    std::string name;  ///< unique
    Role role = Role::Viewer;
    std::string passwordHash;  ///< in the form of crypto_pwhash_str
    UtcTime made;
    UtcTime changed;
};

/// The right of a program to use the API. The token itself is kept nowhere.
struct ApiToken {
    ApiTokenId id;
    std::string name;  ///< unique among those that are not revoked
    Role role = Role::Viewer;
    std::string madeBy;
    Sha256 hash;
    UtcTime made;
    std::optional<UtcTime> lastUsed;
    std::optional<UtcTime> revoked;
};

/// Somebody who has logged in with a browser.
struct Session {
    Sha256 hash;  ///< of the cookie's value
    UserId user;
    std::string crossSiteToken;  ///< which forms and scripts of our own pages send along
    std::string address;
    UtcTime made;
    UtcTime lastUsed;
};

/// One line of the record of who did what. Lines are added and never changed.
struct AuditLine {
    std::int64_t number = 0;  ///< rises from line to line
    UtcTime time;
    std::string actor;    ///< name of a user, token or agent; empty when unknown
    std::string address;  ///< of whoever asked; "local" for the command line
    std::string action;   ///< such as "user.add" or "login.refused"
    std::string subject;  ///< to what it was done
    std::string detail;
};

struct AuditFilter {
    std::string actor;
    std::string action;  ///< this one, or all that begin with it and a dot
};

// ---- Packages

enum class PackageArchitecture { X86, X64 };

/// An archive for agents to install. Its file lies in the data directory.
struct Package {
    PackageArchitecture architecture = PackageArchitecture::X64;
    std::string name;
    std::uint64_t sizeBytes = 0;
    Sha256 hash;
    UtcTime added;
};

}  // namespace kolvan::server
