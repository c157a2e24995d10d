#include "companions/server/profiles/ProfileCache.h"

#include "companions/profiler/output/Pprof.h"
#include "companions/server/profiles/UnreadableProfile.h"
#include "tests/companions/server/profiles/PprofFile.h"
#include "tests/profiler/output/SampleProfile.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace kolvan::server::profiles {
namespace {

namespace fs = std::filesystem;

using test::PprofFile;

constexpr std::size_t kPlenty = std::size_t{1} << 30;

/// One name for all code of one file, which changes.
class OneName final : public CodeNames {
public:
    std::string stampOf(const std::string& buildId) const override {
        return buildId == "00ff12" ? name : "";
    }
    std::vector<std::string> namesAt(const std::string& /*buildId*/,
                                     std::span<const std::uint64_t> addresses) const override {
        return std::vector<std::string>(addresses.size(), name);
    }

    std::string name;
};

class ProfileCacheTest : public testing::Test {
protected:
    /// Puts a file in the place of the one before, as uploads do.
    std::string put(const std::string& name, const std::string& function) const {
        const std::string fresh = place.write("fresh", PprofFile().sample(function, {1, 1}).file());
        fs::rename(fresh, place.path() / name);
        return place.entry(name);
    }

    std::shared_ptr<const Profile> get(ProfileCache& cache, const std::string& path) {
        return cache.get(path, [this] { ++readings; });
    }

    static std::string functionOf(const Profile& profile) { return profile.functions.back().name; }

    kolvan::test::TemporaryDirectory place;
    int readings = 0;  // of pieces of files
};

TEST_F(ProfileCacheTest, ProfileIsReadOnceForManyViews) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::string path = put("profile", "main");
    const auto first = get(cache, path);
    const int readingsOfOne = readings;

    const auto second = get(cache, path);

    EXPECT_LT(0, readingsOfOne);
    EXPECT_EQ(readingsOfOne, readings);
    EXPECT_EQ(first, second);
    EXPECT_EQ("main", functionOf(*second));
}

TEST_F(ProfileCacheTest, FileThatTookThePlaceIsRead) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const auto before = get(cache, put("profile", "before"));

    const auto after = get(cache, put("profile", "later!"));  // as many bytes

    EXPECT_EQ("before", functionOf(*before));  // whoever looks at it goes on
    EXPECT_EQ("later!", functionOf(*after));
}

TEST_F(ProfileCacheTest, FileThatHasGoneIsNotShown) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::string path = put("profile", "main");
    (void)get(cache, path);
    fs::remove(path);

    try {
        (void)get(cache, path);
        FAIL() << "it was shown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(std::errc::no_such_file_or_directory, error.code());
    }
}

TEST_F(ProfileCacheTest, KeepsThoseThatWereAskedForLast) {
    const NoCodeNames names;
    const std::string a = put("a", "main");
    const std::string b = put("b", "main");
    const std::string c = put("c", "main");
    ProfileCache probe(names, kPlenty);
    const std::size_t bytesOfOne = memoryOf(*get(probe, a));
    ProfileCache cache(names, 2 * bytesOfOne);
    const auto firstOfA = get(cache, a);
    const auto firstOfB = get(cache, b);
    (void)get(cache, a);

    (void)get(cache, c);

    EXPECT_EQ(firstOfA, get(cache, a));
    EXPECT_NE(firstOfB, get(cache, b));
}

TEST_F(ProfileCacheTest, OneThatTakesMoreThanAllMayIsKeptAloneUntilAnotherIsRead) {
    const NoCodeNames names;
    const std::string large = put("large", "main");
    const std::string other = put("other", "main");
    ProfileCache probe(names, kPlenty);
    const std::size_t bytes = memoryOf(*get(probe, large));
    ProfileCache cache(names, bytes - 1);
    const std::weak_ptr<const Profile> before = get(cache, other);
    const std::weak_ptr<const Profile> first = get(cache, large);
    EXPECT_TRUE(before.expired());
    readings = 0;

    EXPECT_EQ(first.lock(), get(cache, large));  // for the next view, or the next who listens
    EXPECT_EQ(0, readings);
    const auto next = cache.get(other, [&first] { EXPECT_TRUE(first.expired()); });
    EXPECT_EQ("main", functionOf(*next));
}

TEST_F(ProfileCacheTest, ClearedOneKeepsNothing) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::weak_ptr<const Profile> kept = get(cache, put("profile", "main"));
    ASSERT_FALSE(kept.expired());

    cache.clear();

    EXPECT_TRUE(kept.expired());
}

TEST_F(ProfileCacheTest, NewNamesOfItsCodeAreShown) {
    profiler::test::ProfileBuilder builder;
    builder.module("/opt/app/app", "00ff12");
    builder.thread(1, 1, "app", "app").sample({builder.location({})}, 5);
    profiler::writePprof(builder.profile, {}, place.entry("profile"));
    OneName names;
    ProfileCache cache(names, kPlenty);
    const auto shown = [&] { return get(cache, place.entry("profile"))->functions[0].name; };

    EXPECT_EQ("[app+0x...]", shown());
    names.name = "first";
    EXPECT_EQ("[no stack]", shown());
    EXPECT_EQ("first", get(cache, place.entry("profile"))->functions[1].name);
    names.name = "";
    EXPECT_EQ("[app+0x...]", shown());
}

TEST_F(ProfileCacheTest, ReadingEndsWhereItMayNotProceed) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::string path = put("profile", "main");

    EXPECT_THROW((void)cache.get(path, [] { throw std::runtime_error("nobody waits for it"); }),
                 std::runtime_error);

    EXPECT_EQ("main", functionOf(*get(cache, path)));
}

TEST_F(ProfileCacheTest, FileThatIsNoProfileIsReadOnce) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::string path = place.write("profile", "no profile");
    const auto failure = [&]() -> std::string {
        try {
            (void)get(cache, path);
            return "none";
        } catch (const UnreadableProfile& unreadable) {
            return unreadable.what();
        }
    };
    const std::string first = failure();
    const int readingsOfOne = readings;

    EXPECT_LT(0, readingsOfOne);
    EXPECT_EQ(first, failure());
    EXPECT_EQ(readingsOfOne, readings);
    cache.clear();
    EXPECT_EQ(first, failure());
    EXPECT_LT(readingsOfOne, readings);
}

TEST_F(ProfileCacheTest, FileThatIsNoProfileIsReadAgainWhenItHasChanged) {
    const NoCodeNames names;
    ProfileCache cache(names, kPlenty);
    const std::string path = place.write("profile", "no profile");
    EXPECT_THROW((void)get(cache, path), UnreadableProfile);

    (void)put("profile", "main");

    EXPECT_EQ("main", functionOf(*get(cache, path)));
}

}  // namespace
}  // namespace kolvan::server::profiles
