#include "companions/server/api/FileResponse.h"

#include "tests/companions/server/support/ServerScene.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>
#include <system_error>

namespace kolvan::server::api {
namespace {

using test::Client;
using test::ReceivedResponse;

class FileResponseTest : public testing::Test {
protected:
    FileResponseTest() {
        scene.router.add("GET", "/file", [this](http::Request&) -> http::Awaitable<http::Response> {
            co_return fileResponse(openFile(directory.path() / "file", Missing::IsEmpty),
                                   "application/octet-stream");
        });
        scene.start();
    }

    ReceivedResponse get(const std::string& range = "") {
        Client client(scene.port());
        (void)client.send("GET /file HTTP/1.1\r\nHost: test\r\n" +
                          (range.empty() ? "" : "Range: " + range + "\r\n") + "\r\n");
        return client.readResponse();
    }

    const test::TemporaryDirectory directory;
    test::ServerScene scene;
};

TEST_F(FileResponseTest, FileIsSentWholeAndIsNothingThatABrowserRuns) {
    directory.write("file", "<script>\xFF</script>");

    const ReceivedResponse response = get();

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("<script>\xFF</script>", response.body);
    EXPECT_EQ("application/octet-stream", response.fields.at("content-type"));
    EXPECT_EQ("nosniff", response.fields.at("x-content-type-options"));
    EXPECT_EQ("bytes", response.fields.at("accept-ranges"));
}

TEST_F(FileResponseTest, PartOfItIsSentWhereARangeIsAskedFor) {
    directory.write("file", "0123456789");

    const ReceivedResponse middle = get("bytes=2-4");
    EXPECT_EQ(206, middle.status);
    EXPECT_EQ("234", middle.body);
    EXPECT_EQ("bytes 2-4/10", middle.fields.at("content-range"));
    EXPECT_EQ("789", get("bytes=7-").body);
    EXPECT_EQ("89", get("bytes=-2").body);
    EXPECT_EQ("89", get("bytes=8-99").body);
    EXPECT_EQ("0123456789", get("bytes=x").body);
}

TEST_F(FileResponseTest, RangeBehindTheEndIsAProblemThatTellsTheSize) {
    directory.write("file", "0123456789");

    const ReceivedResponse response = get("bytes=10-");

    EXPECT_EQ(416, response.status);
    EXPECT_EQ("bytes */10", response.fields.at("content-range"));
    EXPECT_EQ("", response.body);
}

TEST_F(FileResponseTest, FileThatIsNotThereYetIsEmpty) {
    const ReceivedResponse response = get();

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("", response.body);
    EXPECT_TRUE(response.complete);
}

TEST_F(FileResponseTest, FileThatHasToBeThereIsNamedWhereItIsNot) {
    try {
        (void)openFile(directory.path() / "missing", Missing::IsAnError);
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(ENOENT, error.code().value());
        EXPECT_EQ(0U, std::string(error.what()).find((directory.path() / "missing").string()));
    }
}

TEST_F(FileResponseTest, OtherErrorsAreNotTakenForAnEmptyFile) {
    directory.write("plain", "");

    EXPECT_THROW(openFile(directory.path() / "plain" / "below", Missing::IsEmpty),
                 std::system_error);
}

}  // namespace
}  // namespace kolvan::server::api
