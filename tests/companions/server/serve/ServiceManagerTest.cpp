#include "companions/server/serve/ServiceManager.h"

#include "basekit2/UniqueFd.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kolvan::server {
namespace {

using testing::MatchesRegex;

/// The socket of a service manager.
class Manager {
public:
    /// @param name as NOTIFY_SOCKET has it: a path, or "@" and a name that is in no file system
    explicit Manager(const std::string& name)
        : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        EXPECT_EQ(0, ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())));
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() { ::unsetenv("NOTIFY_SOCKET"); }

    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    /// What it was told, once; empty when nothing.
    std::string heard() const {
        std::array<char, 1000> text{};
        const ssize_t length = ::recv(socket.get(), text.data(), text.size(), 0);
        return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : "";
    }

private:
    const basekit2::UniqueFd socket;
};

TEST(ServiceManagerTest, HearsEachWordOnce) {
    const test::TemporaryDirectory place;
    const Manager manager(place.entry("notify"));

    tellReady();
    EXPECT_EQ("READY=1\nMAINPID=" + std::to_string(::getpid()), manager.heard());
    tellReloading();
    EXPECT_THAT(manager.heard(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[1-9][0-9]*"));
    tellReplacedBy(4711);
    EXPECT_EQ("READY=1\nMAINPID=4711", manager.heard());
    tellStopping();
    EXPECT_EQ("STOPPING=1", manager.heard());
    EXPECT_EQ("", manager.heard());
}

TEST(ServiceManagerTest, IsReachedByANameThatIsInNoFileSystem) {
    const Manager manager("@kolvan-test-" + std::to_string(::getpid()));

    tellStopping();

    EXPECT_EQ("STOPPING=1", manager.heard());
}

TEST(ServiceManagerTest, NothingIsSaidWhereThereIsNone) {
    ::unsetenv("NOTIFY_SOCKET");
    tellReady();
    for (const std::string& nowhere :
         {std::string(), std::string("/nowhere/notify"), std::string(500, 'x')}) {
        ::setenv("NOTIFY_SOCKET", nowhere.c_str(), 1);
        tellReady();
    }
    ::unsetenv("NOTIFY_SOCKET");
}

}  // namespace
}  // namespace kolvan::server
