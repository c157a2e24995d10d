// A program without names is profiled by the real collector, and named by the server.
#include "tests/companions/server/support/ApiScene.h"
#include "tests/profiler/support/Program.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdlib>
#include <string>

namespace kolvan::test {
namespace {

using namespace kolvan::server;

void run(const std::string& command) {
    ASSERT_EQ(0, std::system(command.c_str())) << command;  // NOLINT(concurrency-mt-unsafe)
}

/// The function that costs most.
std::string hottest(const ApiScene& scene, const Collection& collection) {
    const std::string text =
        scene.get("/api/v1/collections/" + collection.id.text + "/top.json?count=1").body;
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    return document["functions"][0]["name"].GetString();
}

TEST(RealProfileTest, StrippedProgramIsNamedByItsUploadedSymbols) {
    const TemporaryDirectory directory;
    const std::string program = directory.entry("stripped");
    run("strip -o '" + program + "' " KOLVAN_TRUTH_FIXTURE);
    run("objcopy --only-keep-debug " KOLVAN_TRUTH_FIXTURE " '" + directory.entry("debug") + "'");
    run("objcopy --dump-section .note.gnu.build-id='" + directory.entry("note") + "' '" + program +
        "' /dev/null");
    std::string buildId;
    for (const char byte : readFile(directory.entry("note")).substr(16)) {
        constexpr char kDigits[] = "0123456789abcdef";
        buildId += kDigits[static_cast<unsigned char>(byte) / 16];
        buildId += kDigits[static_cast<unsigned char>(byte) % 16];
    }
    Program collector(
        {"-r", directory.entry("result"), "--engine", "ptrace", "--", program, "hot"});
    ASSERT_EQ(0, collector.finish()) << collector.errors();

    ApiScene scene(directory.path() / "data");
    const Collection collection = scene.addCollection(scene.addAgent("alpha"));
    scene.upload(collection, "data.0/profile.pb.gz",
                 readFile(directory.entry("result/data.0/profile.pb.gz")));
    EXPECT_EQ("[stripped+0x...]", hottest(scene, collection));

    const ReceivedResponse response =
        scene.send("PUT", "/api/v1/symbols/" + buildId, readFile(directory.entry("debug")));

    EXPECT_EQ(201, response.status) << response.body;
    EXPECT_EQ("truth::(anonymous namespace)::hotFunction(unsigned long)",
              hottest(scene, collection));
}

}  // namespace
}  // namespace kolvan::test
