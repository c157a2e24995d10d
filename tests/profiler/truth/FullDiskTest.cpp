// Collections into a disk without room: each of the results meets its end once.

#include "tests/profiler/truth/TruthTest.h"
#include "tests/support/PrivateMounts.h"

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class FullDiskTest : public TruthTest {
protected:
    /// Collects into a disk of its own, made with `disk` (tmpfs(5)), and expects results that are
    /// whole, or a clear failure that leaves no half file.
    /// @return what could not be written, below the result directory; empty where all was
    std::string collectInto(const std::string& disk) {
        const std::string result = directory.entry("result");
        if (::mount("tmpfs", result.c_str(), "tmpfs", 0, disk.c_str()) != 0) {
            throw std::system_error(errno, std::generic_category(), "mount");
        }
        Arguments arguments = options({"--"});
        const Arguments command = fixture({"kill-itself", "100"});
        arguments.insert(arguments.end(), command.begin(), command.end());
        Program collector(arguments);
        std::string refused;
        const int status = collector.finish();
        if (status == 0) {
            expectWhole("target-ended");
        } else {
            EXPECT_EQ(6, status) << collector.errors();
            const std::string& text = collector.errors();
            const std::size_t begin = text.find("'" + result + "/");
            const std::size_t end = text.rfind("': No space left on device\n");
            EXPECT_TRUE(text.starts_with("kolvan-trcap: cannot ")) << text;
            if (begin == std::string::npos || end == std::string::npos) {
                throw std::runtime_error("no clear failure: " + text);
            }
            refused = text.substr(begin + result.size() + 2, end - begin - result.size() - 2);
        }
        expectNoHalfFile();
        (void)::umount2(result.c_str(),
                        MNT_DETACH);  // it goes with the test's mounts at the latest
        return refused;
    }

private:
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

INSTANTIATE_TEST_SUITE_P(, FullDiskTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(FullDiskTest, EachFileThatFindsNoRoomIsAClearFailureThatLeavesNoHalfFile) {
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
    const std::vector<std::string> expected = {"data.0", "data.0/collection.trace.json",
                                               "data.0/profile.pb.gz", "data.0/summary.json", ""};
    EXPECT_EQ(expected, refused);
}

TEST_P(FullDiskTest, DiskOfAnySizeIsAClearFailureOrEnough) {
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
