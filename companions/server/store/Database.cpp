#include "companions/server/store/Database.h"

#include "basekit2/UniqueFd.h"
#include "companions/server/store/Schema.h"
#include "companions/server/store/StoreError.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>

namespace kolvan::server {

namespace {

// SQLite gives the files beside it the same rights.
constexpr mode_t kForItsUserAlone = 0600;

std::string made(const std::string& file) {
    // Only a file that is new may be opened and closed here: closing a file takes all of the
    // process's locks off it, those of other connections included.
    const basekit2::UniqueFd fresh(
        ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kForItsUserAlone));
    if (!fresh && errno != EEXIST) {
        const int number = errno;
        throw StoreError(StoreError::Reason::Failed,
                         "Failed to make " + file + ": " + std::generic_category().message(number));
    }
    return file;
}

}  // namespace

Database::Database(const std::string& file) : Database(file, OpeningLock(file)) {}

Database::Database(const std::string& file, const OpeningLock& /*lock*/)
    : path(file), writer(made(file), Connection::Access::ReadWrite) {
    // Readers go on beside a writer, and a change is one write to one file.
    if (writer.value<std::string>("PRAGMA journal_mode=WAL") != "wal") {
        throw StoreError(StoreError::Reason::Failed,
                         path + " cannot be shared between processes: is it on a network disk?");
    }
    // After a burst, the journal does not keep the size that the burst took.
    writer.script("PRAGMA synchronous=FULL; PRAGMA journal_size_limit=16777216;");
    migrate(writer);
    (void)wasChangedOutside();  // begins to count here
}

bool Database::wasChangedOutside() {
    const std::lock_guard lock(writerMutex);
    // Changes with each commit of any connection but the one that is asked; all of ours go through
    // it.
    const auto version = writer.value<std::int64_t>("PRAGMA data_version").value_or(0);
    return std::exchange(seenVersion, version) != version;
}

void Database::promise(Durability durability) {
    if (promised != durability) {
        writer.run(durability == Durability::OnDisk ? "PRAGMA synchronous=FULL"
                                                    : "PRAGMA synchronous=NORMAL");
        promised = durability;
    }
}

Database::Reader::Reader(const Database& ownDatabase) : database(ownDatabase) {
    {
        const std::lock_guard lock(database.readersMutex);
        if (!database.idleReaders.empty()) {
            connection = std::move(database.idleReaders.back());
            database.idleReaders.pop_back();
        }
    }
    if (!connection) {
        connection = std::make_unique<Connection>(database.path, Connection::Access::ReadOnly);
    }
}

Database::Reader::~Reader() {
    try {
        const std::lock_guard lock(database.readersMutex);
        database.idleReaders.push_back(std::move(connection));
    } catch (const std::bad_alloc&) {
        // The connection is closed, and opened again when it is needed.
    }
}

}  // namespace kolvan::server
