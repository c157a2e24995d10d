#pragma once

#include "companions/server/collections/OutputFiles.h"
#include "companions/server/collections/UploadedFiles.h"
#include "companions/server/store/Store.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace kolvan::server {

/// Where an upload belongs.
struct UploadPlace {
    CollectionId collection;
    AgentId agent;     ///< whose collection it is
    std::string name;  ///< relative path of the file below its collection
};

/// What can be done with collections. It joins the store, which knows of them, with the messages
/// that carry them out and the files that they leave.
///
/// Threads: any member from any thread. All of them block on the disk: call them on the pool.
/// @throws StoreError
class Collections {
public:
    /// All three outlive this one.
    Collections(Store& recordStore, const OutputFiles& outputFiles,
                const UploadedFiles& uploadedFiles);

    /// Makes a collection and queues its start for the agent.
    /// @throws std::invalid_argument with the reason when no collector could carry it out
    /// @throws StoreError with `NotFound` when there is no such agent
    Collection start(const NewCollection& collection);

    /// Asks a collection to end early with what it has.
    Asked stop(const CollectionId& collection);

    /// Asks a collection to end as cancelled. One that its agent has not seen ends at once.
    Asked cancel(const CollectionId& collection);

    /// Passes a word of the collector's to a running collection, "status" for instance.
    Asked command(const CollectionId& collection, const std::string& word);

    /// Sends the start of a collection again that was sent and of which nothing was heard.
    Asked sendAgain(const CollectionId& collection);

    /// Removes a collection that has ended, with all that it has left.
    Asked remove(const CollectionId& collection);

    /// Finds out to which collection an upload belongs. Uploads carry no token: what proves that
    /// the agent was asked for this collection is the secret in the directory that it was given.
    /// @param path of the file below the server's directory of uploads, found safe
    /// @return nothing when there is no such collection, or the secret is another one
    std::optional<UploadPlace> placeOf(const std::string& path) const;

private:
    Store& store;
    const OutputFiles& outputs;
    const UploadedFiles& uploads;
};

}  // namespace kolvan::server
