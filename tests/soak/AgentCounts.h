#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test::soak {

/// What a process has at one moment. Memory in KiB.
struct AgentCounts {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::size_t mappings = 0;
    std::uint64_t resident = 0;
    std::uint64_t peak = 0;  ///< most that was ever resident
};

/// Reads what a running process has.
/// @throws std::runtime_error when there is no such process
AgentCounts countsOf(pid_t process);

/// Number of threads of an agent that has nothing to do.
std::size_t idleThreads();

/// Fails the test unless an idle agent has exactly as many threads and descriptors as it had after
/// its warm-up, and not `allowance` KiB of memory more. Memory is not judged where a sanitizer
/// uses most of it.
void expectFlat(const AgentCounts& warm, const AgentCounts& later, std::uint64_t allowance);

/// Fails the test if an idle agent has many more mappings than after its warm-up, except under a
/// sanitizer.
void expectNoMoreMappings(const AgentCounts& warm, const AgentCounts& later);

/// Whether this build, and with it the agent, is one for a sanitizer.
bool isSanitized();

/// A table whose columns are as wide as they need to be. Prints itself at its end.
class Table {
public:
    using Row = std::vector<std::string>;

    /// @param title what the table shows
    Table(std::string title, Row head);
    ~Table();

    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    void add(Row row) { rows.push_back(std::move(row)); }

    /// Adds a row that begins with these cells and ends with the counts.
    void add(Row beginning, const AgentCounts& counts);

private:
    const std::string title;
    std::vector<Row> rows;
};

/// Heads of the columns that `Table::add` fills with counts, after these.
Table::Row withCounts(Table::Row beginning);

}  // namespace kolvan::test::soak
