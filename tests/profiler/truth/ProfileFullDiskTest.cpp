// Collections into a disk without room: each of the results meets its end once.

#include "tests/profiler/truth/TruthTest.h"
#include "tests/support/PrivateMounts.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class ProfileFullDiskTest : public TruthTest {
protected:
    /// Collects into a disk of its own, made with `disk` (tmpfs(5)), and expects results that are
    /// whole, or a clear failure that leaves no half file.
    /// @return what could not be done; empty where all was
    std::string collectInto(const std::string& disk) {
        const std::string result = directory.entry("result");
        if (::mount("tmpfs", result.c_str(), "tmpfs", 0, disk.c_str()) != 0) {
            throw std::system_error(errno, std::generic_category(), "mount");
        }
        Arguments arguments = options({"--"});
        const Arguments command = fixture({"kill-itself", "100"});
        arguments.insert(arguments.end(), command.begin(), command.end());
        Program collector(arguments);
        const int status = collector.finish();
        if (status == 0) {
            expectWhole("target-ended");
        } else {
            EXPECT_EQ(6, status) << collector.errors();
        }
        expectNoHalfFile();
        (void)::umount2(result.c_str(),
                        MNT_DETACH);  // it goes with the test's mounts at the latest
        return status == 0 ? "" : refusedBy(collector.errors());
    }

private:
    /// What the program says that it could not write.
    std::string refusedBy(std::string text) const {
        const auto remove = [&text](const std::string& part) {
            const std::size_t at = text.find(part);
            text.erase(std::min(at, text.size()), at == std::string::npos ? 0 : part.size());
        };
        remove("kolvan-trcap: cannot ");
        remove(": No space left on device\n");
        remove(directory.entry("result/"));
        return text;
    }

    void expectNoHalfFile() const {
        const auto isWhole = [](const std::string& file) {
            rapidjson::Document document;
            document.Parse(readFile(file).c_str());
            return !document.HasParseError();
        };
        const std::string trace = resultFile("collection.trace.json");
        const std::string figures = resultFile("summary.json");
        EXPECT_TRUE(!fs::exists(trace) || isWhole(trace));
        EXPECT_TRUE(!fs::exists(figures) || isWhole(figures));
        if (fs::exists(resultFile("profile.pb.gz"))) {
            EXPECT_NO_THROW((void)profile());
        }
    }
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileFullDiskTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(ProfileFullDiskTest, EachFileThatFindsNoRoomIsAClearFailureThatLeavesNoHalfFile) {
    fs::create_directory(directory.entry("result"));
    std::vector<std::string> refused;
    const bool mounted = runWithPrivateMounts([&] {
        // Room for the directory itself, and for one thing more in each round.
        for (int things = 1; refused.empty() || !refused.back().empty(); ++things) {
            refused.push_back(collectInto("size=16m,nr_inodes=" + std::to_string(things)));
        }
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
    const std::vector<std::string> expected = {"create directory 'data.0'",
                                               "create the control socket in the result directory",
                                               "write 'data.0/collection.trace.json'",
                                               "write 'data.0/profile.pb.gz'",
                                               "write 'data.0/summary.json'",
                                               ""};
    EXPECT_EQ(expected, refused);
}

TEST_P(ProfileFullDiskTest, DiskOfAnySizeIsAClearFailureOrEnough) {
    fs::create_directory(directory.entry("result"));
    std::vector<std::string> refused;
    const bool mounted = runWithPrivateMounts([&] {
        constexpr int kPageKilobytes = 4;
        for (int size = kPageKilobytes; refused.empty() || !refused.back().empty();
             size += kPageKilobytes) {
            refused.push_back(collectInto("size=" + std::to_string(size) + "k"));
        }
    });

    if (!mounted) {
        GTEST_SKIP() << "a full disk takes the right to mount one";
    }
    EXPECT_LT(1U, refused.size());
}

}  // namespace
}  // namespace kolvan::test
