#include "companions/profiler/output/Pprof.h"
#include "companions/server/base/Hex.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/companions/server/symbols/ElfImage.h"
#include "tests/profiler/output/SampleProfile.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadStates.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <future>
#include <span>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using namespace kolvan::server;

/// A file with the build-id of these bytes, whose function is at 0x1000.
std::string fileOf(const std::string& id, const std::string& function) {
    return ElfImage{id, {{function, 0x1000, 0x10}}}.file();
}

std::string pathOf(const std::string& id) {
    return "/api/v1/symbols/" + toHex(std::as_bytes(std::span(id)));
}

std::string problem(int status, const std::string& title, const std::string& detail) {
    return R"({"title":")" + title + R"(","status":)" + std::to_string(status) + R"(,"detail":")" +
           detail + R"("})";
}

ReceivedResponse put(const ApiScene& scene, const std::string& target, const std::string& content) {
    return scene.send("PUT", target, content);
}

/// A profile of one nameless place, 0x1000 in the file with the build-id.
Collection addProfile(ApiScene& scene, const std::string& id) {
    const TemporaryDirectory directory;
    profiler::test::ProfileBuilder builder;
    builder.module("/opt/app/app", toHex(std::as_bytes(std::span(id))));
    builder.thread(1, 1, "app", "app").sample({builder.location({})}, 5);
    profiler::writePprof(builder.profile, {}, directory.entry("profile"));
    const Collection collection = scene.addCollection(scene.addAgent("alpha"));
    scene.upload(collection, "data.0/profile.pb.gz", readFile(directory.entry("profile")));
    return collection;
}

std::string collapsed(const ApiScene& scene, const Collection& collection) {
    return scene
        .get("/api/v1/collections/" + collection.id.text +
             "/profile.collapsed.txt?sampleType=samples")
        .body;
}

class SymbolRoutesTest : public testing::Test {
protected:
    /// The build-ids of a page, and in `next` its cursor.
    std::vector<std::string> page(const std::string& query, std::string& next) const {
        const std::string text = scene.get("/api/v1/symbols" + query).body;
        rapidjson::Document document;
        document.Parse(text.data(), text.size());
        std::vector<std::string> ids;
        for (const auto& item : document["items"].GetArray()) {
            ids.emplace_back(item["buildId"].GetString());
        }
        next = document["next"].IsNull() ? "" : document["next"].GetString();
        return ids;
    }

    /// Lets a file have come at this second.
    void setTime(const std::string& id, std::int64_t seconds) const {
        const std::string hex = toHex(std::as_bytes(std::span(id)));
        const std::string path = directory.entry("symbols/kept/" + hex + '/' + hex);
        const timespec both[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), both, 0));
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
};

TEST_F(SymbolRoutesTest, UploadedSymbolsNameWhatAProfileCannot) {
    const Collection collection = addProfile(scene, "id");
    EXPECT_EQ("[app+0x...] 5\n", collapsed(scene, collection));

    const ReceivedResponse response =
        put(scene, pathOf("id") + "?name=app", fileOf("id", "_ZN6hidden4codeEi"));

    EXPECT_EQ(201, response.status);
    EXPECT_EQ("hidden::code(int) 5\n", collapsed(scene, collection));
    EXPECT_EQ(204, scene.send("DELETE", pathOf("id")).status);
    EXPECT_EQ("[app+0x...] 5\n", collapsed(scene, collection));
    EXPECT_EQ(std::vector<std::string>(
                  {"engineer symbols.put 6964 (app)", "engineer symbols.remove 6964 ()"}),
              [this] {
                  std::vector<std::string> lines = scene.audit();
                  std::erase_if(lines, [](const std::string& line) {
                      return line.find(" symbols.") == std::string::npos;
                  });
                  return lines;
              }());
}

TEST_F(SymbolRoutesTest, UploadIsShownAsItIsKept) {
    const std::string content = fileOf("id", "f");

    const std::string kept = put(scene, pathOf("id") + "?name=libx.so.1", content).body;

    EXPECT_EQ(R"({"items":[)" + kept + R"(],"next":null})", scene.get("/api/v1/symbols").body);
    EXPECT_EQ(R"({"buildId":"6964","name":"libx.so.1","size":)" + std::to_string(content.size()) +
                  R"(,"added":)",
              kept.substr(0, kept.rfind('"', kept.size() - 3)));
}

TEST_F(SymbolRoutesTest, WhatIsNoFileOfThisBuildIdIsRefused) {
    const auto refused = [this](const std::string& target, const std::string& content) {
        const ReceivedResponse response = put(scene, target, content);
        EXPECT_EQ(400, response.status);
        return response.body;
    };

    EXPECT_EQ(problem(400, "Bad Request", "This is no ELF file."), refused(pathOf("id"), ""));
    EXPECT_EQ(problem(400, "Bad Request", "This is no ELF file."), refused(pathOf("id"), "{}"));
    EXPECT_EQ(problem(400, "Bad Request", "This ELF file has another build-id: 6f74."),
              refused(pathOf("id"), fileOf("ot", "f")));
    EXPECT_EQ(problem(400, "Bad Request",
                      "A build-id is an even number of lower-case hexadecimal digits."),
              refused("/api/v1/symbols/..%2F..", fileOf("id", "f")));
    EXPECT_EQ(problem(400, "Bad Request",
                      R"(A file's name here has letters, digits and \".-_+@\", with no dot in )"
                      "front, and 200 bytes at most."),
              refused(pathOf("id") + "?name=..%2Fx", fileOf("id", "f")));
    std::string next;
    EXPECT_TRUE(page("", next).empty());
    EXPECT_TRUE(fs::is_empty(directory.path() / "symbols/kept"));
}

TEST_F(SymbolRoutesTest, ListShowsTheNewestFirstInPages) {
    for (const std::string id : {"aa", "bb", "cc", "dd", "ee"}) {
        ASSERT_EQ(201, put(scene, pathOf(id), fileOf(id, "f")).status);
        setTime(id, id == "cc" ? 2000 : 1000);  // four of one moment
    }
    using Ids = std::vector<std::string>;
    std::string next;

    EXPECT_EQ(Ids({"6363", "6565"}), page("?limit=2", next));
    ASSERT_NE("", next);
    // What goes and comes meanwhile moves nothing.
    EXPECT_EQ(204, scene.send("DELETE", pathOf("ee")).status);
    ASSERT_EQ(201, put(scene, pathOf("ff"), fileOf("ff", "f")).status);
    setTime("ff", 3000);
    const std::string cursor = next.replace(next.find(' '), 1, "%20");
    EXPECT_EQ(Ids({"6464", "6262"}), page("?limit=2&cursor=" + cursor, next));
    ASSERT_NE("", next);
    EXPECT_EQ(Ids({"6161"}),
              page("?limit=2&cursor=" + next.replace(next.find(' '), 1, "%20"), next));
    EXPECT_EQ("", next);
    const std::string size = std::to_string(fileOf("ff", "f").size());
    EXPECT_EQ(
        R"({"items":[{"buildId":"6666","name":"6666","size":)" + size +
            R"(,"added":"1970-01-01T00:50:00.000Z"}],"next":"1970-01-01T00:50:00.000Z 6666"})",
        scene.get("/api/v1/symbols?limit=1").body);
}

TEST_F(SymbolRoutesTest, WhatIsNotThereCannotBeDeleted) {
    for (const char* const id : {"aa", "..", "%2e%2e", "0F"}) {
        const ReceivedResponse response =
            scene.send("DELETE", std::string("/api/v1/symbols/") + id);
        EXPECT_EQ(404, response.status) << id;
        EXPECT_EQ(problem(404, "Not Found", "There are no symbols with this build-id."),
                  response.body);
    }
}

TEST_F(SymbolRoutesTest, ViewerLooksAndChangesNothing) {
    const std::string& viewer = scene.token(Role::Viewer);
    for (const char* const method : {"PUT", "DELETE"}) {
        EXPECT_EQ(403,
                  scene.send(ApiRequest{method, pathOf("id"), {}, {}, {}}.with(viewer)).status);
        EXPECT_EQ(401, scene.send(ApiRequest{method, pathOf("id"), {}, {}, {}}).status);
    }
    EXPECT_EQ(401, scene.send(ApiRequest{"GET", "/api/v1/symbols", {}, {}, {}}).status);
    EXPECT_EQ(R"({"items":[],"next":null})", scene.get("/api/v1/symbols").body);
}

TEST_F(SymbolRoutesTest, FileLargerThanIsTakenIsRefusedBeforeItComes) {
    Client client(scene.port());
    ASSERT_TRUE(
        client.send("PUT " + pathOf("id") + " HTTP/1.1\r\nHost: test\r\nAuthorization: Bearer " +
                    scene.token(Role::Engineer) + "\r\nContent-Length: 4294967297\r\n\r\n"));

    EXPECT_EQ(413, client.readResponse().status);
}

TEST_F(SymbolRoutesTest, UploadThatBreaksOffLeavesNothing) {
    ASSERT_EQ(201, put(scene, pathOf("id"), fileOf("id", "before")).status);
    const Collection collection = addProfile(scene, "id");
    {
        Client client(scene.port());
        ASSERT_TRUE(client.send("PUT " + pathOf("id") +
                                " HTTP/1.1\r\nHost: test\r\nAuthorization: Bearer " +
                                scene.token(Role::Engineer) + "\r\nContent-Length: 100000\r\n\r\n" +
                                fileOf("id", "after")));
        client.reset();
    }
    ASSERT_TRUE(scene.server.waitForConnections(0));

    lookUntil(
        [this] {
            const fs::directory_iterator all(directory.path() / "symbols/incoming");
            return std::all_of(begin(all), end(all),
                               [](const auto& own) { return fs::is_empty(own.path()); });
        },
        "a part of an upload stays");
    EXPECT_EQ("before 5\n", collapsed(scene, collection));
}

TEST_F(SymbolRoutesTest, TenUploadsAtOnceLeaveOneWholeFile) {
    const Collection collection = addProfile(scene, "id");
    std::vector<std::future<int>> uploads;
    for (int client = 0; client < 10; ++client) {
        uploads.push_back(std::async(std::launch::async, [this, client] {
            const std::string name = "from" + std::to_string(client);
            return put(scene, pathOf("id") + "?name=" + name, fileOf("id", "f")).status;
        }));
    }
    for (std::future<int>& upload : uploads) {
        EXPECT_EQ(201, upload.get());
    }

    std::string next;
    EXPECT_EQ(std::vector<std::string>({"6964"}), page("", next));
    EXPECT_EQ("f 5\n", collapsed(scene, collection));
}

TEST(SymbolRoutesDiskTest, FullDiskIsSaidAndTheServerGoesOn) {
    const TemporaryDirectory directory;
    const fs::path disk = directory.path() / "symbols";
    fs::create_directories(disk);
    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"));
        ApiScene scene(directory.path());
        const std::string large = fileOf("id", "f") + std::string(1U << 20U, '\0');

        const ReceivedResponse response = put(scene, pathOf("id"), large);

        EXPECT_EQ(507, response.status);
        EXPECT_EQ(problem(507, "Insufficient Storage", "The server's disk is full."),
                  response.body);
        EXPECT_EQ(201, put(scene, pathOf("id"), fileOf("id", "f")).status);
        ASSERT_EQ(0, ::mount("", disk.c_str(), "", MS_REMOUNT, "size=8m"));
        EXPECT_EQ(201, put(scene, pathOf("id"), large).status);
    });
    if (!mounted) {
        GTEST_SKIP() << "this user cannot mount anything";
    }
}

}  // namespace
}  // namespace kolvan::test
