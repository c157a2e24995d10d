#include "companions/server/store/SqliteStore.h"

#include "companions/server/store/Connection.h"
#include "companions/server/store/Schema.h"
#include "companions/server/store/StoreError.h"
#include "tests/companions/server/store/StoreTest.h"
#include "tests/support/PrivateMounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <iterator>
#include <thread>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::server {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

StoreError::Reason reasonOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const StoreError& error) {
        return error.reason();
    }
    throw std::runtime_error("nothing failed");
}

std::string cureOf(const std::string& file) {
    return ". Stop the server, move " + file + ", " + file + "-wal and " + file +
           "-shm away, and put a backup in the place of the first";
}

mode_t rightsOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(file.c_str(), &status)) << file;
    return status.st_mode & 07777U;
}

class SqliteStoreTest : public StoreTest {
protected:
    void open() { store = std::make_unique<SqliteStore>(file, clock); }
};

TEST_F(SqliteStoreTest, FilesAreForTheirUserAloneWhateverTheMask) {
    store.reset();
    const mode_t before = ::umask(0);
    const std::string other = directory.entry("other.sqlite");
    {
        const SqliteStore wideOpen(other, clock);

        EXPECT_EQ(0600U, rightsOf(other));
        EXPECT_EQ(0600U, rightsOf(other + "-wal"));
        EXPECT_EQ(0600U, rightsOf(other + "-shm"));
    }
    ::umask(before);
}

TEST_F(SqliteStoreTest, NewFileHasTheCurrentLayout) {
    EXPECT_EQ(1, store->schemaVersion());
    EXPECT_EQ(1, Connection(file, Connection::Access::ReadOnly).value<int>("PRAGMA user_version"));
}

TEST_F(SqliteStoreTest, ReferencesHold) {
    Connection connection(file, Connection::Access::ReadOnly);

    EXPECT_EQ(1, connection.value<int>("PRAGMA foreign_keys"));
    EXPECT_FALSE(connection.query("PRAGMA foreign_key_check").step());
}

TEST_F(SqliteStoreTest, EveryTableIsStrict) {
    Connection connection(file, Connection::Access::ReadOnly);

    EXPECT_EQ(0, connection.value<int>("SELECT count(*) FROM pragma_table_list WHERE strict = 0 "
                                       "AND name NOT LIKE 'sqlite%'"));
}

TEST_F(SqliteStoreTest, NewerLayoutIsRefusedAndLeftAlone) {
    store.reset();
    Connection(file, Connection::Access::ReadWrite).script("PRAGMA user_version=99");

    EXPECT_EQ(StoreError::Reason::NewerSchema, reasonOf([&] { open(); }));
    EXPECT_EQ(file +
                  " was written by a newer kolvan-server (layout 99, this one knows 1): start that "
                  "one, or put a backup from before it in the place",
              failureOf([&] { open(); }));
    EXPECT_EQ(99, Connection(file, Connection::Access::ReadOnly).value<int>("PRAGMA user_version"));
}

TEST_F(SqliteStoreTest, DatabaseOfAnotherProgramIsRefused) {
    store.reset();
    const std::string other = directory.write("other", "");
    Connection(other, Connection::Access::ReadWrite).script("CREATE TABLE guests (name TEXT)");

    EXPECT_EQ(other + " is the database of another program",
              failureOf([&] { SqliteStore(other, clock); }));
}

TEST_F(SqliteStoreTest, WhatIsNoDatabaseIsRefusedWithTheCure) {
    store.reset();
    const std::string other = directory.write("other", std::string(5000, 'x'));

    EXPECT_EQ(StoreError::Reason::Damaged, reasonOf([&] { SqliteStore(other, clock); }));
    EXPECT_EQ(other + " is damaged (file is not a database)" + cureOf(other),
              failureOf([&] { SqliteStore(other, clock); }));
    EXPECT_EQ(std::string(5000, 'x'), test::readFile(other));
}

TEST_F(SqliteStoreTest, DamagedPageIsRefusedWithTheCure) {
    for (int number = 0; number < 200; ++number) {
        store->accounts().addUser("user " + std::to_string(number), Role::Viewer,
                                  std::string(100, 'h'));
    }
    store.reset();  // moves everything from the journal into the file
    const auto size = fs::file_size(file);
    {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(static_cast<std::streamoff>(size - 2 * 4096));
        stream << std::string(4096, '\x5A');
    }

    EXPECT_EQ(StoreError::Reason::Damaged, reasonOf([&] { open(); }));
    const std::string text = failureOf([&] { open(); });
    EXPECT_EQ(0U, text.find(file + " is damaged ("));
    EXPECT_THAT(text, HasSubstr(")" + cureOf(file)));
}

TEST_F(SqliteStoreTest, MissingDirectoryIsNamed) {
    const std::string other = directory.entry("none/kolvan.sqlite");

    EXPECT_EQ("Failed to open " + other + ": No such file or directory",
              failureOf([&] { SqliteStore(other, clock); }));
}

TEST_F(SqliteStoreTest, UnknownWordInTheFileIsDamage) {
    const Agent agent = addAgent();
    Connection(file, Connection::Access::ReadWrite).run("UPDATE agents SET presence = 'asleep'");

    EXPECT_EQ(
        file + " is damaged (the column presence holds what no server has written)" + cureOf(file),
        failureOf([&] { store->agents().find(agent.id); }));
}

TEST_F(SqliteStoreTest, SeveralProcessesMayMakeTheFileAtOnce) {
    const std::string fresh = directory.entry("fresh.sqlite");
    std::array<int, 2> gate{};
    ASSERT_EQ(0, ::pipe(gate.data()));
    std::vector<pid_t> children;
    for (int number = 0; number < 4; ++number) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(gate[1]);
            char end = 0;
            (void)::read(gate[0], &end, 1);  // returns for all of them when the gate is closed
            const std::string failure = failureOf([&] {
                SqliteStore(fresh, clock)
                    .accounts()
                    .addUser(std::to_string(number), Role::Viewer, "");
            });
            std::cerr << failure << '\n';
            ::_exit(failure == "nothing failed" ? 0 : 1);
        }
        children.push_back(child);
    }
    ::close(gate[0]);
    ::close(gate[1]);

    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
    }
    EXPECT_EQ(4U, SqliteStore(fresh, clock).accounts().listUsers().size());
}

TEST_F(SqliteStoreTest, ReadersSeeWholeChangesOnlyWhileOthersWrite) {
    const Agent agent = addAgent();
    std::atomic<bool> done = false;
    auto writing = std::async(std::launch::async, [&] {
        while (!done) {
            finish(addRunningCollection(agent.id));
        }
    });

    for (int count = 0; count < 300; ++count) {
        for (const Collection& collection : store->collections().list({}, {5, ""}).items) {
            EXPECT_EQ(collection.state == CollectionState::Done, collection.ended.has_value());
            EXPECT_EQ(collection.state == CollectionState::Waiting,
                      !collection.startConfirmed.has_value());
        }
    }
    done = true;
    writing.get();
}

TEST_F(SqliteStoreTest, ChangesOfAnotherProcessWakeEverybodyOnce) {
    const Agent agent = addAgent();
    int woken = 0;
    const auto subscription = store->wakeUps().onCommands(agent.id, [&] { ++woken; });
    SqliteStore(file, clock).accounts().addUser("anna", Role::Viewer, "");

    EXPECT_EQ(0, woken);
    store->lookForOutsideChanges();
    EXPECT_EQ(1, woken);
    store->lookForOutsideChanges();
    EXPECT_EQ(1, woken);
}

TEST_F(SqliteStoreTest, OwnChangesAreNoOutsideChanges) {
    const Agent agent = addAgent();
    int woken = 0;
    const auto subscription = store->wakeUps().onCommands(agent.id, [&] { ++woken; });
    store->accounts().addUser("anna", Role::Viewer, "");

    store->lookForOutsideChanges();

    EXPECT_EQ(0, woken);
}

TEST_F(SqliteStoreTest, BackupIsOneWholeFileForItsUserAlone) {
    const Agent agent = addAgent();
    const Collection collection = addCollection(agent.id, "kept");
    const std::string backup = directory.entry("backup.sqlite");

    store->backUp(backup);

    EXPECT_EQ(0600U, rightsOf(backup));
    EXPECT_FALSE(fs::exists(backup + "-wal"));
    EXPECT_FALSE(fs::exists(backup + "-journal"));
    SqliteStore copy(backup, clock);
    EXPECT_EQ("kept", copy.collections().find(collection.id)->name);
}

TEST_F(SqliteStoreTest, BackupIsOfOneMomentWhileOthersWrite) {
    const Agent agent = addAgent();
    std::atomic<bool> done = false;
    auto writing = std::async(std::launch::async, [&] {
        while (!done) {
            finish(addRunningCollection(agent.id));
        }
    });
    for (int number = 0; number < 10; ++number) {
        const std::string backup = directory.entry("backup " + std::to_string(number));
        store->backUp(backup);

        Connection copy(backup, Connection::Access::ReadWrite);
        EXPECT_EQ("ok", copy.value<std::string>("PRAGMA integrity_check"));
        EXPECT_FALSE(copy.query("PRAGMA foreign_key_check").step());
    }
    done = true;
    writing.get();
}

TEST_F(SqliteStoreTest, BackupReplacesNothing) {
    const std::string there = directory.write("there", "precious");

    EXPECT_EQ("Failed to write the backup " + there + ": File exists",
              failureOf([&] { store->backUp(there); }));

    EXPECT_EQ("precious", test::readFile(there));
    // The database and what belongs to it, and the file that was there.
    EXPECT_EQ(4, std::distance(fs::directory_iterator(directory.path()), {}));
}

TEST_F(SqliteStoreTest, BackupIntoNowhereIsRefused) {
    const std::string nowhere = directory.entry("none/backup");

    EXPECT_EQ("Failed to write the backup " + nowhere + ": No such file or directory",
              failureOf([&] { store->backUp(nowhere); }));
}

TEST_F(SqliteStoreTest, TryingToWriteTellsAFullDiskAndItsEnd) {
    store->tryToWrite();
    store.reset();
    const std::string disk = directory.entry("disk");
    fs::create_directory(disk);

    const bool mounted = test::runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m"));
        SqliteStore small(disk + "/kolvan.sqlite", clock);
        small.tryToWrite();
        const std::string ballast = disk + "/ballast";
        std::ofstream(ballast) << std::string(2'000'000, 'x');  // all that there is room for

        const auto reason = reasonOf([&] {
            for (;;) {
                clock.advance(std::chrono::milliseconds(1));
                small.tryToWrite();
            }
        });
        EXPECT_EQ(StoreError::Reason::Full, reason);

        fs::remove(ballast);
        small.tryToWrite();
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
}

TEST_F(SqliteStoreTest, FullDiskIsAnErrorThatChangesNothing) {
    store.reset();
    const std::string disk = directory.entry("disk");
    fs::create_directory(disk);

    const bool mounted = test::runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m"));
        const std::string onDisk = disk + "/kolvan.sqlite";
        SqliteStore small(onDisk, clock);
        std::size_t added = 0;
        std::string failure;
        StoreError::Reason reason{};
        try {
            for (;; ++added) {
                small.accounts().addUser(std::to_string(added), Role::Viewer,
                                         std::string(1000, 'h'));
            }
        } catch (const StoreError& error) {
            failure = error.what();
            reason = error.reason();
        }

        EXPECT_EQ("The disk with " + onDisk + " is full", failure);
        EXPECT_EQ(StoreError::Reason::Full, reason);
        EXPECT_LT(0U, added);
        EXPECT_EQ(added, small.accounts().listUsers().size());
        EXPECT_EQ(StoreError::Reason::Full, reasonOf([&] { small.backUp(disk + "/backup"); }));
        EXPECT_FALSE(fs::exists(disk + "/backup"));

        ASSERT_EQ(0, ::mount("", disk.c_str(), "", MS_REMOUNT, "size=4m"));
        small.accounts().addUser("after", Role::Viewer, "");
        EXPECT_EQ(added + 1, small.accounts().listUsers().size());
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
}

}  // namespace
}  // namespace kolvan::server
