#include "companions/server/http/ListeningSocket.h"

#include "tests/companions/server/support/Client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>

namespace kolvan::test {
namespace {

using namespace server::http;
using testing::IsEmpty;
using testing::StartsWith;

TEST(ListeningSocketTest, SystemChoosesThePort) {
    const basekit2::UniqueFd socket = listenOn("127.0.0.1", 0);

    EXPECT_NE(0U, localPort(socket.get()));
    EXPECT_EQ("127.0.0.1:" + std::to_string(localPort(socket.get())), localAddress(socket.get()));
    const Client client(localPort(socket.get()));
}

TEST(ListeningSocketTest, TakenPortIsAnErrorWithItsName) {
    const basekit2::UniqueFd socket = listenOn("127.0.0.1", 0);
    const unsigned port = localPort(socket.get());

    try {
        (void)listenOn("127.0.0.1", port);
        FAIL() << "it is taken";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(
            "Cannot listen on 127.0.0.1 port " + std::to_string(port) + ": Address already in use",
            std::string(error.what()));
    }
}

TEST(ListeningSocketTest, NameIsNoAddress) {
    EXPECT_THROW((void)listenOn("localhost", 0), std::runtime_error);
}

TEST(ListeningSocketTest, NothingIsInheritedWithoutAServiceManager) {
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");

    EXPECT_THAT(inheritedSockets(), IsEmpty());
}

TEST(ListeningSocketTest, SocketsOfAnotherProcessAreNotInherited) {
    ::setenv("LISTEN_PID", "1", 1);
    ::setenv("LISTEN_FDS", "1", 1);

    EXPECT_THAT(inheritedSockets(), IsEmpty());
    EXPECT_EQ(nullptr, std::getenv("LISTEN_FDS"));
}

// In a process of its own, where the first descriptors can be laid out.
int inheritIn(int descriptor) {
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::dup2(descriptor, 3);
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "1", 1);
        try {
            const auto sockets = inheritedSockets();
            const bool one = sockets.size() == 1 && sockets[0].get() == 3 &&
                             (::fcntl(3, F_GETFD) & FD_CLOEXEC) != 0 && inheritedSockets().empty();
            ::_exit(one ? 0 : 1);
        } catch (const std::runtime_error&) {
            ::_exit(2);
        }
    }
    int status = 0;
    (void)::waitpid(child, &status, 0);
    return WEXITSTATUS(status);
}

TEST(ListeningSocketTest, SocketOfTheServiceManagerIsInheritedOnce) {
    const basekit2::UniqueFd socket = listenOn("127.0.0.1", 0);

    EXPECT_EQ(0, inheritIn(socket.get()));
}

TEST(ListeningSocketTest, WhatIsNoListeningSocketIsRefused) {
    const basekit2::UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));

    EXPECT_EQ(2, inheritIn(null.get()));
}

}  // namespace
}  // namespace kolvan::test
