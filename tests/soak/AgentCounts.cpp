#include "tests/soak/AgentCounts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

namespace kolvan::test::soak {

namespace fs = std::filesystem;

namespace {

// Main, interrupt, connection task, operation replies, background stops: docs/threads.md. The
// thread sanitizer has one of its own.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t kIdleThreads = 6;
#else
constexpr std::size_t kIdleThreads = 5;
#endif

std::uint64_t statusNumber(const fs::path& process, const std::string& name) {
    std::ifstream status(process / "status");
    for (std::string word; status >> word;) {
        if (word == name) {
            std::uint64_t number = 0;
            status >> number;
            return number;
        }
        status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    throw std::runtime_error("no " + name + " in " + process.string());
}

std::size_t entries(const fs::path& directory) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

std::size_t lines(const fs::path& file) {
    std::ifstream stream(file);
    return static_cast<std::size_t>(
        std::count(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>(), '\n'));
}

// A moment with more threads at once than ever before leaves their stacks in the C library's store,
// two mappings each. What every operation left behind would be hundreds.
constexpr std::size_t kMappingsOfAMoment = 16;

}  // namespace

AgentCounts countsOf(pid_t number) {
    const fs::path process = fs::path("/proc") / std::to_string(number);
    return {statusNumber(process, "Threads:"), entries(process / "fd"), lines(process / "maps"),
            statusNumber(process, "VmRSS:"), statusNumber(process, "VmHWM:")};
}

std::size_t idleThreads() {
    return kIdleThreads;
}

void expectFlat(const AgentCounts& warm, const AgentCounts& later, std::uint64_t allowance) {
    EXPECT_EQ(warm.threads, later.threads);
    EXPECT_EQ(warm.descriptors, later.descriptors);
    if (!isSanitized()) {
        EXPECT_LE(later.resident, warm.resident + allowance);
    }
}

void expectNoMoreMappings(const AgentCounts& warm, const AgentCounts& later) {
    if (!isSanitized()) {
        EXPECT_LE(later.mappings, warm.mappings + kMappingsOfAMoment);
    }
}

bool isSanitized() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return true;
#else
    return false;
#endif
}

Table::Table(std::string title, Row head) : title(std::move(title)), rows{std::move(head)} {}

Table::~Table() {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths.at(column) = std::max(widths.at(column), row[column].size());
        }
    }
    std::cout << "\n" << title << "\n\n";
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            std::cout << "  " << std::setw(static_cast<int>(widths[column])) << row[column];
        }
        std::cout << "\n";
    }
    std::cout << std::endl;
}

void Table::add(Row row, const AgentCounts& counts) {
    for (const std::uint64_t count :
         {counts.threads, counts.descriptors, counts.mappings, counts.resident, counts.peak}) {
        row.push_back(std::to_string(count));
    }
    add(std::move(row));
}

Table::Row withCounts(Table::Row beginning) {
    for (const char* name : {"threads", "descriptors", "mappings", "resident KiB", "peak KiB"}) {
        beginning.emplace_back(name);
    }
    return beginning;
}

}  // namespace kolvan::test::soak
