#include "companions/server/store/Connection.h"
#include "tests/companions/server/store/StoreTest.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::server {
namespace {

/// What a process that is killed has been told before: states of collections, by id.
using Acknowledged = std::map<std::string, CollectionState>;

struct CloseFile {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

class CrashTest : public StoreTest {
protected:
    /// Works until it is killed, and says of each step that it has been acknowledged.
    [[noreturn]] void workFor(const AgentId& agent, int acknowledgements) {
        const auto say = [&](const Collection& collection, CollectionState state) {
            const std::string line = collection.id.text + " " + std::string(nameOf(state)) + "\n";
            if (::write(acknowledgements, line.data(), line.size()) != std::ssize(line)) {
                ::_exit(1);
            }
        };
        open();
        for (;;) {
            const Collection collection = addCollection(agent, std::string(500, 'n'));
            say(collection, CollectionState::Waiting);
            take(agent);
            store->operations().confirm(agent, collection.start);
            say(collection, CollectionState::Running);
            store->collections().stop(collection.id, collectionCommand());
            say(collection, CollectionState::Stopping);
            finish(collection);
            say(collection, CollectionState::Done);
        }
    }

    /// Kills a process at work a moment after it has said so many lines, in the middle of whatever
    /// it does then.
    Acknowledged killAtWork(const AgentId& agent, int lines, std::chrono::microseconds moment) {
        std::array<int, 2> pipe{};
        if (::pipe(pipe.data()) != 0) {
            throw std::runtime_error("no pipe");
        }
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(pipe[0]);
            workFor(agent, pipe[1]);
        }
        ::close(pipe[1]);
        const std::unique_ptr<std::FILE, CloseFile> reading(::fdopen(pipe[0], "r"));
        Acknowledged said;
        std::array<char, 100> line{};
        for (int count = 0; std::fgets(line.data(), line.size(), reading.get()) != nullptr;
             ++count) {
            const std::string text(line.data());
            const std::size_t blank = text.find(' ');
            said[text.substr(0, blank)] =
                valueOf<CollectionState>(text.substr(blank + 1, text.size() - blank - 2)).value();
            if (count == lines) {
                std::this_thread::sleep_for(moment);  // to hit another place each time
                ::kill(child, SIGKILL);               // what it has said until now still comes
            }
        }
        int status = 0;
        EXPECT_EQ(child, ::waitpid(child, &status, 0));
        EXPECT_EQ(SIGKILL, WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        return said;
    }

    void open() { store = std::make_unique<SqliteStore>(file, clock); }
};

TEST_F(CrashTest, NothingThatWasAcknowledgedIsLostAndNothingIsHalf) {
    const Agent agent = addAgent();
    store.reset();
    std::mt19937 random(std::random_device{}());
    Acknowledged said;

    for (int round = 0; round < 30; ++round) {
        const int lines = std::uniform_int_distribution(0, 40)(random);
        const std::chrono::microseconds moment(std::uniform_int_distribution(0, 3000)(random));
        said.merge(killAtWork(agent.id, lines, moment));
        open();

        for (const auto& [id, state] : said) {
            const auto found = store->collections().find(CollectionId(id));
            ASSERT_TRUE(found) << "round " << round << ", after " << lines << " lines";
            // One step more may have been done than was said.
            EXPECT_TRUE(found->state == state || mayFollow(state, found->state))
                << nameOf(state) << " was said, " << nameOf(found->state) << " is kept";
        }
        Connection connection(file, Connection::Access::ReadOnly);
        EXPECT_EQ("ok", connection.value<std::string>("PRAGMA integrity_check"));
        EXPECT_FALSE(connection.query("PRAGMA foreign_key_check").step());
        EXPECT_EQ(0, connection.value<int>(
                         "SELECT count(*) FROM collections JOIN operations "
                         "ON operations.id = collections.start WHERE "
                         "(collections.state = 'done') != (operations.state = 'finished') OR "
                         "(collections.state IN ('running', 'stopping')) != "
                         "(operations.state = 'running')"))
            << "a collection and its start tell different stories";
        store.reset();
    }
}

}  // namespace
}  // namespace kolvan::server
