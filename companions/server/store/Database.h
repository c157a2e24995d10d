#pragma once

#include "companions/server/store/Connection.h"
#include "companions/server/store/OpeningLock.h"
#include "companions/server/store/WriteTransaction.h"

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::server {

/// A SQLite file with one connection that writes and as many that read as are needed at a time.
/// Readers see the state before or after a change, and hold up nobody.
///
/// Threads: any member from any thread. Changes take turns.
class Database {
public:
    /// Opens a file, which it makes (for this user alone) when there is none, and brings it to the
    /// current layout.
    /// @throws StoreError
    explicit Database(const std::string& file);

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Calls `work(connection)` to look at something. @return what it returns
    template <typename Work>
    auto read(Work&& work) const {
        Reader reader(*this);
        return std::forward<Work>(work)(*reader.connection);
    }

    /// Calls `work(connection)` to change something for good: all of it, when this returns, or
    /// nothing, when `work` or this throws. It has reached the disk, and waiting for
    /// that is most of what a change costs: 0.3 to 3 ms on the disk of a virtual machine, where the
    /// change alone takes 0.03 ms.
    /// @return what `work` returns
    template <typename Work>
    auto write(Work&& work) {
        return change(Durability::OnDisk, std::forward<Work>(work));
    }

    /// As `write()`, for what may be lost when the machine (not the process) crashes in the next
    /// seconds.
    template <typename Work>
    auto writeSoon(Work&& work) {
        return change(Durability::Soon, std::forward<Work>(work));
    }

    /// Whether another process has changed something since the last call. Takes microseconds.
    bool wasChangedOutside();

private:
    enum class Durability { OnDisk, Soon };

    Database(const std::string& file, const OpeningLock& lock);

    /// Borrows a reading connection.
    class Reader {
    public:
        explicit Reader(const Database& ownDatabase);
        ~Reader();
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        const Database& database;
        std::unique_ptr<Connection> connection;
    };

    template <typename Work>
    auto change(Durability durability, Work&& work) {
        const std::lock_guard lock(writerMutex);
        promise(durability);
        WriteTransaction transaction(writer);
        if constexpr (std::is_void_v<decltype(work(writer))>) {
            std::forward<Work>(work)(writer);
            transaction.commit();
        } else {
            auto result = std::forward<Work>(work)(writer);
            transaction.commit();
            return result;
        }
    }

    void promise(Durability durability);

    const std::string path;

    // Guards writer, promised and seenVersion. Readers are borrowed and given back beside it.
    std::mutex writerMutex;
    Connection writer;
    Durability promised = Durability::OnDisk;
    std::int64_t seenVersion = 0;

    mutable std::mutex readersMutex;  // guards idleReaders; nothing is locked under it
    mutable std::vector<std::unique_ptr<Connection>> idleReaders;
};

}  // namespace kolvan::server
