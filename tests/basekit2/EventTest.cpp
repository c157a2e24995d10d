#include "basekit2/Event.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>

namespace {

using basekit2::UniqueFd;

bool isReadable(const UniqueFd& event) {
    pollfd wait{event.get(), POLLIN, 0};
    return ::poll(&wait, 1, 0) == 1 && (wait.revents & POLLIN) != 0;
}

TEST(EventTest, IsReadableFromItsFirstWriteOn) {
    const UniqueFd event = basekit2::create_event();
    EXPECT_FALSE(isReadable(event));

    ASSERT_EQ(0, ::eventfd_write(event.get(), 1));

    EXPECT_TRUE(isReadable(event));
    EXPECT_TRUE(isReadable(event));
}

TEST(EventTest, IsClosedInAChild) {
    const UniqueFd event = basekit2::create_event();

    EXPECT_EQ(FD_CLOEXEC, ::fcntl(event.get(), F_GETFD));
}

}  // namespace
