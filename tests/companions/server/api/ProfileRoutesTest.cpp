#include "companions/profiler/output/Pprof.h"
#include "companions/server/profiles/Collapsed.h"
#include "companions/server/profiles/Comparison.h"
#include "companions/server/profiles/FlameGraph.h"
#include "companions/server/profiles/ProfileReader.h"
#include "companions/server/profiles/Speedscope.h"
#include "companions/server/profiles/Top.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/companions/server/support/ApiScene.h"
#include "tests/profiler/output/SampleProfile.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using namespace kolvan::server;
using profiles::Filter;
using profiles::Profile;
using profiles::Sink;
using profiles::test::PprofFile;
using profiles::test::written;

/// What the profiler writes.
std::string sampleFile() {
    const TemporaryDirectory directory;
    const std::string path = directory.entry("profile.pb.gz");
    profiler::writePprof(profiler::test::sampleProfile(), profiler::test::sampleCoverage(), path);
    return readFile(path);
}

Profile readFrom(const std::string& file) {
    return profiles::readProfile(profiles::test::pieces(file));
}

std::string detailOf(int status, const std::string& title, const std::string& detail) {
    return R"({"title":")" + title + R"(","status":)" + std::to_string(status) + R"(,"detail":")" +
           detail + R"("})";
}

class ProfileRoutesTest : public testing::Test {
protected:
    /// A collection that has ended with this profile.
    Collection collectionWith(const std::string& file, const std::string& name = "") {
        const Collection collection = scene.addCollection(agent, name);
        scene.upload(collection, "data.0/profile.pb.gz", file);
        scene.end(collection, 0);
        return collection;
    }

    /// Something of a collection, as a viewer sees it.
    ReceivedResponse show(const Collection& collection, const std::string& what) const {
        return scene.get(pathOf(collection, what));
    }

    static std::string pathOf(const Collection& collection, const std::string& what) {
        return "/api/v1/collections/" + collection.id.text + '/' + what;
    }

    const TemporaryDirectory directory;
    ApiScene scene{directory.path()};
    const Agent agent = scene.addAgent("alpha");
};

TEST_F(ProfileRoutesTest, FileIsAsTheCollectorWroteIt) {
    const std::string file = sampleFile();
    const ReceivedResponse response = show(collectionWith(file), "profile.pb.gz");

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("application/gzip", response.fields.at("content-type"));
    EXPECT_TRUE(file == response.body);
}

TEST_F(ProfileRoutesTest, EachViewIsThatOfTheProfile) {
    const std::string file = sampleFile();
    const Profile profile = readFrom(file);
    const Collection collection = collectionWith(file, "nightly <run>");

    const ReceivedResponse top = show(collection, "top.json");
    EXPECT_EQ(200, top.status);
    EXPECT_EQ("application/json", top.fields.at("content-type"));
    EXPECT_EQ(written([&](const Sink& sink) { writeTop(profile, {}, 100, sink); }), top.body);
    EXPECT_EQ(written([&](const Sink& sink) { writeFlameGraph(profile, {}, sink); }),
              show(collection, "flamegraph.json").body);
    EXPECT_EQ(
        written([&](const Sink& sink) { writeSpeedscope(profile, {}, "nightly <run>", sink); }),
        show(collection, "profile.speedscope.json").body);
    const ReceivedResponse collapsed = show(collection, "profile.collapsed.txt");
    EXPECT_EQ("text/plain; charset=utf-8", collapsed.fields.at("content-type"));
    EXPECT_EQ(written([&](const Sink& sink) { writeCollapsed(profile, {}, sink); }),
              collapsed.body);
}

TEST_F(ProfileRoutesTest, SpeedscopeShowsTheIdWhereThereIsNoName) {
    const std::string file = sampleFile();
    const Profile profile = readFrom(file);
    const Collection collection = collectionWith(file);

    EXPECT_EQ(
        written([&](const Sink& sink) { writeSpeedscope(profile, {}, collection.id.text, sink); }),
        show(collection, "profile.speedscope.json").body);
}

TEST_F(ProfileRoutesTest, EachViewCanBeFiltered) {
    const std::string file = PprofFile()
                                 .thread(1, 11)
                                 .at(100)
                                 .sample("main;a", {1, 10})
                                 .at(200)
                                 .sample("main;b", {2, 20})
                                 .at(300)
                                 .sample("main;c", {4, 40})
                                 .thread(1, -12)
                                 .at(200)
                                 .sample("other", {8, 80})
                                 .file();
    const Profile profile = readFrom(file);
    const Collection collection = collectionWith(file);
    const auto collapsed = [&](const std::string& query) {
        return show(collection, "profile.collapsed.txt" + query).body;
    };

    EXPECT_EQ("main;a 10\nmain;b 20\nmain;c 40\nother 80\n", collapsed(""));
    EXPECT_EQ("other 80\n", collapsed("?thread=-12"));
    EXPECT_EQ("main;b 20\nmain;c 40\nother 80\n", collapsed("?from=200"));
    EXPECT_EQ("main;a 10\n", collapsed("?to=200"));
    EXPECT_EQ("main;b 2\n", collapsed("?sampleType=samples&thread=11&from=200&to=300"));
    EXPECT_EQ("", collapsed("?from=300&to=200"));

    const std::string query = "?sampleType=samples&thread=11&from=200&to=300";
    Filter filter;
    filter.sampleType = "samples";
    filter.thread = 11;
    filter.from = 200;
    filter.to = 300;
    EXPECT_EQ(written([&](const Sink& sink) { writeTop(profile, filter, 100, sink); }),
              show(collection, "top.json" + query).body);
    EXPECT_EQ(written([&](const Sink& sink) { writeFlameGraph(profile, filter, sink); }),
              show(collection, "flamegraph.json" + query).body);
    EXPECT_EQ(written([&](const Sink& sink) {
                  writeSpeedscope(profile, filter, collection.id.text, sink);
              }),
              show(collection, "profile.speedscope.json" + query).body);
    EXPECT_EQ(written([&](const Sink& sink) {
                  writeComparison(compare(profile, profile, filter), sink);
              }),
              scene
                  .get("/api/v1/compare" + query + "&base=" + collection.id.text +
                       "&other=" + collection.id.text)
                  .body);
}

TEST_F(ProfileRoutesTest, TopListsAsManyFunctionsAsAreWanted) {
    PprofFile file;
    for (int number = 1; number <= 150; ++number) {
        file.sample("f" + std::to_string(number), {number, number});
    }
    const Profile profile = file.read();
    const Collection collection = collectionWith(file.file());
    const auto expected = [&](std::size_t count) {
        return written([&](const Sink& sink) { writeTop(profile, {}, count, sink); });
    };

    EXPECT_EQ(expected(100), show(collection, "top.json").body);
    EXPECT_EQ(expected(3), show(collection, "top.json?count=3").body);
    EXPECT_EQ(expected(150), show(collection, "top.json?count=10000").body);
}

TEST_F(ProfileRoutesTest, TwoProfilesAreCompared) {
    const PprofFile base = PprofFile().sample("main;a", {3, 30}).sample("main;b", {1, 10});
    const PprofFile other = PprofFile().sample("main;a", {1, 10}).sample("main;c", {1, 10});
    const std::string first = collectionWith(base.file()).id.text;
    const std::string second = collectionWith(other.file()).id.text;

    const ReceivedResponse response =
        scene.get("/api/v1/compare?base=" + first + "&other=" + second);

    EXPECT_EQ(200, response.status);
    EXPECT_EQ("application/json", response.fields.at("content-type"));
    EXPECT_EQ(written([&](const Sink& sink) {
                  writeComparison(compare(base.read(), other.read(), {}), sink);
              }),
              response.body);
}

TEST_F(ProfileRoutesTest, WhatMakesNoSenseIsNamed) {
    const Collection collection = collectionWith(sampleFile());
    const std::string id = collection.id.text;
    const std::vector<std::pair<std::string, std::string>> requests = {
        {pathOf(collection, "top.json?thread=main"), R"(\"main\" is no value for \"thread\".)"},
        {pathOf(collection, "top.json?thread=9223372036854775808"),
         R"(\"9223372036854775808\" is no value for \"thread\".)"},
        {pathOf(collection, "flamegraph.json?from=-1"), R"(\"-1\" is no value for \"from\".)"},
        {pathOf(collection, "flamegraph.json?to=1.5"), R"(\"1.5\" is no value for \"to\".)"},
        {pathOf(collection, "top.json?count=0"), R"(\"0\" is no value for \"count\".)"},
        {pathOf(collection, "top.json?count=10001"), R"(\"10001\" is no value for \"count\".)"},
        {pathOf(collection, "profile.collapsed.txt?count=5"),
         R"(There is no parameter \"count\" here.)"},
        {pathOf(collection, "profile.pb.gz?thread=1"), R"(There is no parameter \"thread\" here.)"},
        {"/api/v1/compare?base=" + id, R"(\"other\" has to be given.)"},
        {"/api/v1/compare?other=" + id, R"(\"base\" has to be given.)"},
        {"/api/v1/compare?base=" + id + "&base=" + id + "&other=" + id,
         R"(\"base\" may be given once.)"}};
    for (const auto& [target, detail] : requests) {
        const ReceivedResponse response = scene.get(target);

        EXPECT_EQ(400, response.status) << target;
        EXPECT_EQ(detailOf(400, "Bad Request", detail), response.body);
    }
}

TEST_F(ProfileRoutesTest, WhatIsNotThereIsSaid) {
    const std::string unknown = R"(There is no collection with this id.)";
    const Collection running = scene.addCollection(agent);
    const Collection empty = scene.addCollection(agent);
    scene.end(empty, 0);
    for (const char* const what : {"profile.pb.gz", "profile.speedscope.json",
                                   "profile.collapsed.txt", "flamegraph.json", "top.json"}) {
        EXPECT_EQ(detailOf(404, "Not Found", unknown),
                  scene.get("/api/v1/collections/..%2F..%2Fetc/" + std::string(what)).body);
        EXPECT_EQ(detailOf(404, "Not Found", "The profile comes when the collection has ended."),
                  show(running, what).body);
        const ReceivedResponse response = show(empty, what);
        EXPECT_EQ(404, response.status);
        EXPECT_EQ(detailOf(404, "Not Found", "This collection has left no profile."),
                  response.body);
    }
    EXPECT_EQ(detailOf(404, "Not Found", unknown),
              scene.get("/api/v1/compare?base=x&other=" + empty.id.text).body);
}

TEST_F(ProfileRoutesTest, WhatCannotBeMadeOfTheProfileIsSaid) {
    const Collection good = collectionWith(sampleFile());
    const Collection damaged = collectionWith(sampleFile().substr(0, 100));
    for (const char* const what :
         {"profile.speedscope.json", "profile.collapsed.txt", "flamegraph.json", "top.json"}) {
        const ReceivedResponse cutOff = show(damaged, what);
        EXPECT_EQ(422, cutOff.status);
        EXPECT_EQ("application/problem+json", cutOff.fields.at("content-type"));
        EXPECT_EQ(detailOf(422, "Unprocessable Entity",
                           "The profile ends too early: its file is not whole."),
                  cutOff.body);
        EXPECT_EQ(detailOf(422, "Unprocessable Entity",
                           "The profile has no sample type 'wait'; what it has is 'samples', "
                           "'cpu'."),
                  show(good, std::string(what) + "?sampleType=wait").body);
    }
    EXPECT_EQ(
        422,
        scene.get("/api/v1/compare?base=" + good.id.text + "&other=" + damaged.id.text).status);
    EXPECT_EQ(200, show(damaged, "profile.pb.gz").status);
}

TEST_F(ProfileRoutesTest, NobodyLooksWithoutAToken) {
    const Collection collection = collectionWith(sampleFile());
    for (const std::string& target :
         {pathOf(collection, "profile.pb.gz"), pathOf(collection, "top.json"),
          std::string("/api/v1/compare")}) {
        EXPECT_EQ(401, scene.send(ApiRequest{"GET", target, {}, {}, {}}).status);
    }
}

TEST_F(ProfileRoutesTest, HeadSaysWhatGetWould) {
    const Collection collection = collectionWith(sampleFile());
    const ReceivedResponse got = show(collection, "top.json");

    const ReceivedResponse head =
        scene.send(ApiRequest{"HEAD", pathOf(collection, "top.json"), {}, {}, {}}.with(
            scene.token(Role::Viewer)));

    EXPECT_EQ(200, head.status);
    EXPECT_EQ(std::to_string(got.body.size()), head.fields.at("content-length"));
}

TEST_F(ProfileRoutesTest, TenAtOnceGetWhatEachAskedFor) {
    const std::string file = sampleFile();
    const Profile profile = readFrom(file);
    const Collection collection = collectionWith(file);
    const Collection damaged = collectionWith("no profile");
    const std::string top = written([&](const Sink& sink) { writeTop(profile, {}, 100, sink); });
    const std::string graph =
        written([&](const Sink& sink) { writeFlameGraph(profile, {}, sink); });

    std::vector<std::future<bool>> asked;
    for (int client = 0; client < 10; ++client) {
        asked.push_back(std::async(std::launch::async, [&, client] {
            bool right = true;
            for (int turn = 0; turn < 10; ++turn) {
                right =
                    right && (client % 2 == 0 ? show(collection, "top.json").body == top
                                              : show(collection, "flamegraph.json").body == graph);
                right = right && show(damaged, "top.json").status == 422;
            }
            return right;
        }));
    }
    for (std::future<bool>& answer : asked) {
        EXPECT_TRUE(answer.get());
    }
}

TEST_F(ProfileRoutesTest, UploadInThePlaceOfAProfileIsShown) {
    const Collection collection = collectionWith(PprofFile().sample("before", {1, 1}).file());
    EXPECT_EQ("before 1\n", show(collection, "profile.collapsed.txt").body);

    scene.upload(collection, "data.0/profile.pb.gz", PprofFile().sample("after", {1, 1}).file());

    EXPECT_EQ("after 1\n", show(collection, "profile.collapsed.txt").body);
}

TEST(ProfileRoutesDiskTest, FullDiskIsSaidAndSmallViewsGoOn) {
    const TemporaryDirectory directory;
    const fs::path disk = directory.path() / "views";
    fs::create_directories(disk);
    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=512k"));
        ApiScene scene(directory.path());
        const Agent agent = scene.addAgent("alpha");
        const Collection collection = scene.addCollection(agent);
        PprofFile large;
        for (int number = 0; number < 2000; ++number) {
            large.sample(std::string(1000, 'n') + std::to_string(number), {1, 1});
        }
        scene.upload(collection, "data.0/profile.pb.gz", large.file());
        const std::string path = "/api/v1/collections/" + collection.id.text;

        const ReceivedResponse response = scene.get(path + "/profile.collapsed.txt");

        EXPECT_EQ(507, response.status);
        EXPECT_EQ(detailOf(507, "Insufficient Storage", "The server's disk is full."),
                  response.body);
        EXPECT_EQ(200, scene.get(path + "/top.json").status);
        ASSERT_EQ(0, ::mount("", disk.c_str(), "", MS_REMOUNT, "size=8m"));
        EXPECT_EQ(200, scene.get(path + "/profile.collapsed.txt").status);
    });
    if (!mounted) {
        GTEST_SKIP() << "this user cannot mount anything";
    }
}

}  // namespace
}  // namespace kolvan::test
