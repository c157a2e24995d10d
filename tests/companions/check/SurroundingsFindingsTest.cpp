#include "tests/companions/check/CheckerRun.h"
#include "tests/support/PrivateMounts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <dlfcn.h>
#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class SurroundingsFindingsTest : public testing::Test {
protected:
    SurroundingsFindingsTest() {
        AgentSettings settings;
        settings.serverEndpoint = "http://127.0.0.1:8080";
        installation.configure(settings.text());
        fs::permissions(installation.configurationFile(), fs::perms{0640});
    }

    AgentLaunch launch() const { return checkerLaunch(installation, {installation.directory()}); }

    /// The checker's report when the temporary directory is a file system of its own.
    std::string reportWithTemporaryFiles(unsigned long flags, const char* size, bool filled) {
        std::string report = "no private mounts";
        (void)runWithPrivateMounts([&] {
            const std::string place = installation.temporaryFiles();
            ASSERT_EQ(0, ::mount("none", place.c_str(), "tmpfs", flags, size));
            if (filled) {
                std::ofstream file(installation.temporaryFiles() / "filled");
                file << std::string(2'000'000, 'x');
            }
            report = runChecker(launch()).output;
        });
        return replaced(report, installation.temporaryFiles(), "TEMPORARY");
    }

    std::string reportUnder(const std::string& limit) {
        AgentLaunch limited = launch();
        startThrough(limited, {"/usr/bin/prlimit", limit});
        return runChecker(limited).output;
    }

    AgentInstallation installation;
};

TEST_F(SurroundingsFindingsTest, LibarchiveThatCannotBeLoadedIsAnError) {
    const fs::path libraries = installation.surroundings().entry("libraries");
    fs::create_directory(libraries);
    const fs::path broken = libraries / KOLVAN_LIBARCHIVE;
    std::ofstream(broken) << "no library";
    AgentLaunch misled = launch();
    misled.environment["LD_LIBRARY_PATH"] = libraries;
    ASSERT_EQ(nullptr, ::dlopen(broken.c_str(), RTLD_NOW));
    const std::string reason = ::dlerror();

    EXPECT_EQ("error: " KOLVAN_LIBARCHIVE
              ": It cannot be loaded, and every installation of the collector fails: " +
                  reason +
                  ". Install it (Debian: the package libarchive13).\n1 error, 0 warnings.\n",
              runChecker(misled).output);
}

TEST_F(SurroundingsFindingsTest, FullTemporaryDirectoryIsAnError) {
    const std::string report = reportWithTemporaryFiles(0, "size=1m", true);
    if (report == "no private mounts") {
        GTEST_SKIP() << report;
    }
    EXPECT_EQ(
        "error: TMPDIR: \"TEMPORARY\" is full: every collection fails.\n1 error, 0 warnings.\n",
        report);
}

TEST_F(SurroundingsFindingsTest, SmallTemporaryDirectoryIsAWarning) {
    // Half a megabyte more than said: a file that has just been deleted may still be counted.
    const std::string report = reportWithTemporaryFiles(0, "size=51712k", false);
    if (report == "no private mounts") {
        GTEST_SKIP() << report;
    }
    EXPECT_EQ(
        "warning: TMPDIR: \"TEMPORARY\" has room for 50 MB only; a collection writes its traces "
        "there, and they are left there.\n0 errors, 1 warning.\n",
        report);
}

TEST_F(SurroundingsFindingsTest, TemporaryDirectoryWithoutExecutionIsAWarning) {
    const std::string report = reportWithTemporaryFiles(MS_NOEXEC, "size=200m", false);
    if (report == "no private mounts") {
        GTEST_SKIP() << report;
    }
    EXPECT_EQ(
        "warning: TMPDIR: \"TEMPORARY\" lies on a file system on which no program may be started "
        "(noexec): a collector that keeps a helper with its results cannot run it.\n"
        "0 errors, 1 warning.\n",
        report);
}

TEST_F(SurroundingsFindingsTest, ReadOnlyTemporaryDirectoryIsAnError) {
    const std::string report = reportWithTemporaryFiles(MS_RDONLY, "size=200m", false);
    if (report == "no private mounts") {
        GTEST_SKIP() << report;
    }
    EXPECT_EQ(
        "error: TMPDIR: \"TEMPORARY\" cannot be written to by this user, and every collection "
        "fails: Read-only file system.\n1 error, 0 warnings.\n",
        report);
}

TEST_F(SurroundingsFindingsTest, LowLimitOfProcessesIsAWarning) {
    EXPECT_EQ(
        "warning: processes: This user may have 100 processes and threads at once (ulimit -u). An "
        "agent has a dozen threads at work, two for each trace that it uploads, and its "
        "collectors; "
        "root is exempt.\n0 errors, 1 warning.\n",
        reportUnder("--nproc=100:100"));
}

TEST_F(SurroundingsFindingsTest, LowLimitOfDescriptorsIsAWarning) {
    EXPECT_EQ(
        "warning: descriptors: A process may have 256 open descriptors (ulimit -H -n). Runs and "
        "uploads wait for each other where there are not enough.\n0 errors, 1 warning.\n",
        reportUnder("--nofile=256:256"));
}

TEST_F(SurroundingsFindingsTest, LowSoftLimitOfDescriptorsIsRaisedByTheAgent) {
    EXPECT_EQ("Nothing to say.\n", reportUnder("--nofile=256:4096"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers need terabytes of addresses.
TEST_F(SurroundingsFindingsTest, LowLimitOfAddressesIsAWarningOrAnError) {
    EXPECT_EQ(
        "warning: memory: A process may have 200 MB of addresses (ulimit -v); a package that is "
        "packed tightly may take 250 MB to install. A control group limits memory better.\n"
        "0 errors, 1 warning.\n",
        reportUnder("--as=200000000"));
    EXPECT_EQ(
        "error: memory: A process may have 70 MB of addresses (ulimit -v); no package can be "
        "installed with less than 80 MB.\n1 error, 0 warnings.\n",
        reportUnder("--as=70000000"));
}
#endif

}  // namespace
}  // namespace kolvan::test
