#include "companions/client/EventReader.h"

#include "companions/client/Failure.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace kolvan::client {
namespace {

/// What a reader makes of a stream that comes in pieces of some size.
std::string eventsOf(const std::string& stream, std::size_t size) {
    std::string events;
    EventReader reader([&events](const Event& event) {
        events += event.id + "|" + event.kind + "|" + event.data + "\n";
    });
    for (std::size_t begin = 0; begin < stream.size(); begin += size) {
        reader.read(std::string_view(stream).substr(begin, size));
    }
    return events;
}

TEST(EventReaderTest, EventsAreTheSameHoweverTheyCome) {
    const std::string stream =
        "id: 1\nevent: state\ndata: {\"a\":1}\n\n"
        ": nothing to say\n\n"
        "event: top\r\ndata: one\r\ndata:two\r\n\r\n"
        "data\rid: 3\r\r"
        "data: not whole";

    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{7}, stream.size()}) {
        EXPECT_EQ("1|state|{\"a\":1}\n1|top|one\ntwo\n3|message|\n", eventsOf(stream, size))
            << size;
    }
}

TEST(EventReaderTest, EventWithoutDataIsNone) {
    EXPECT_EQ("", eventsOf("event: state\n\n\n\n", 100));
}

TEST(EventReaderTest, EventWithoutEndIsRefused) {
    EXPECT_THROW((void)eventsOf("data: " + std::string(17'000'000, 'x'), 65'536), Failure);
    std::string lines;
    for (int number = 0; number < 17; ++number) {
        lines += "data: " + std::string(1'000'000, 'x') + "\n";
    }
    EXPECT_THROW((void)eventsOf(lines, 65'536), Failure);
}

}  // namespace
}  // namespace kolvan::client
