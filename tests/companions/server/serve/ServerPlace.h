#pragma once

#include "tests/companions/server/serve/RunningServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace kolvan::test {

/// A place for the data of the servers that a case starts, mostly one after the other.
class ServerPlaceTest : public testing::Test {
protected:
    /// How one is started here, to be changed as the case wants it.
    ServerStart start() const {
        ServerStart start;
        start.data = place.path() / "data";
        return start;
    }

    /// Somebody with a new token. To be called once in a case.
    static ApiClient clientOf(RunningServer& server) {
        return {server.port(), server.command({"token", "add", "test", "--role", "engineer"})};
    }

    const TemporaryDirectory place;
};

}  // namespace kolvan::test
