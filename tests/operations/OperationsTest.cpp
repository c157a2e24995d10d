#include "operations/Operations.h"

#include "basekit2/process/DescriptorBudget.h"
#include "operations/TraceFiles.h"
#include "tests/operations/AuditedTest.h"
#include "tests/operations/CollectorScripts.h"
#include "tests/operations/Failure.h"
#include "tests/operations/OwnProcess.h"
#include "tests/operations/RecordedOutput.h"
#include "tests/operations/ScriptGate.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/PackageServer.h"
#include "tests/support/TakenPlaces.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadShortage.h"
#include "tests/support/ThreadStates.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>

#include <unistd.h>

namespace cagnt1::operations {
namespace {

namespace fs = std::filesystem;
using kolvan::test::ArchiveBuilder;
using kolvan::test::BackgroundCall;
using kolvan::test::CapturedStream;
using kolvan::test::lookUntil;
using kolvan::test::PackageServer;
using kolvan::test::readFile;
using kolvan::test::takeAll;
using Downloads = std::vector<PackageServer::Download>;

static_assert(std::is_abstract_v<IAgent::IOperations>);
static_assert(std::has_virtual_destructor_v<IAgent::IOperations>);
static_assert(std::is_convertible_v<Operations*, IAgent::IOperations*>);

constexpr const char* kInaccessible = "Target package is inaccessible";
constexpr const char* kReady = "Collection is not running";

/// Lets the temporary directories of collections be made below a test's own.
class TemporaryPlace {
public:
    explicit TemporaryPlace(const std::string& path) {
        if (const char* previous = std::getenv("TMPDIR")) {
            before = previous;
        }
        fs::create_directories(path);
        ::setenv("TMPDIR", path.c_str(), 1);
    }
    ~TemporaryPlace() {
        if (before) {
            ::setenv("TMPDIR", before->c_str(), 1);
        } else {
            ::unsetenv("TMPDIR");
        }
    }
    TemporaryPlace(const TemporaryPlace&) = delete;
    TemporaryPlace& operator=(const TemporaryPlace&) = delete;

private:
    std::optional<std::string> before;
};

/// Takes every place that the process has for runs.
std::vector<basekit2::Places::Place> takeAllPlaces() {
    return takeAll(basekit2::process::descriptor_budget().runs);
}

/// The number of threads of this process that wait for something.
std::size_t sleepingThreads() {
    const fs::directory_iterator threads("/proc/self/task");
    return static_cast<std::size_t>(
        std::count_if(begin(threads), end(threads), [](const fs::directory_entry& thread) {
            return kolvan::test::isSleeping(std::stoi(thread.path().filename()));
        }));
}

class OperationsTest : public AuditedTest {
protected:
    void create(const std::string& build = "") {
        operations =
            std::make_shared<Operations>(server, build, location, "x86.tar.gz", "x64.tar.gz");
    }

    /// Makes both archives downloadable, with the same collector in them.
    void offerPackages(const std::string& script) const {
        server->offer("x86.tar.gz", packageWith(script));
        server->offer("x64.tar.gz", packageWith(script));
    }

    /// Installs a collector of build 612345 that does what `body` says.
    void install(const std::string& body = "") {
        offerPackages(collectorScript("612345", body));
        create();
        connect();
    }

    /// Puts a collector where packages have it, as an earlier run of the agent left it.
    void preinstall(const std::string& script) const {
        (void)directory.write("agent/target/package/bin/kolvan-trcap", script);
        fs::permissions(executable, fs::perms(0755));
    }

    /// Connects and waits for the end of the installation.
    /// @return standard output
    std::string connect() {
        const CapturedStream output(STDOUT_FILENO);
        const CapturedStream problems(STDERR_FILENO);
        operations->onConnect();
        (void)readiness();
        lastProblems = problems.text();
        return output.text();
    }

    /// What a command to a collection fails with, while none is running.
    std::string readiness() const {
        return failureOf([this] { return operations->collectionCommand("status", {}); });
    }

    int execute(std::vector<std::string> arguments = {}) {
        return operations->execute(std::move(arguments), output.messenger());
    }

    int collect(const std::string& options = "", const std::string& remote = "uploads") {
        return operations->performCollection(options, remote, output.messenger());
    }

    BackgroundCall<int> collectAsync() {
        return BackgroundCall([this] { return collect(); });
    }

    PackageServer::Download download(const std::string& archiveName) const {
        return {archiveName, location + "/" + archiveName};
    }

    Downloads bothDownloads() const { return {download("x86.tar.gz"), download("x64.tar.gz")}; }

    std::string extractionLines(const std::string& archiveName) const {
        return "Extracting " + location + "/" + archiveName + " to " + location +
               "\nkolvan-trcap is found at " + executable +
               "\nTarget package directory: " + location + "/package\n";
    }

    /// The result directories of all collections of the test.
    std::vector<std::string> resultDirectories() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(temporary)) {
            found.push_back(entry.path());
        }
        return found;
    }

    /// The result directory of the test's only collection.
    std::string resultDirectory() const {
        const std::vector<std::string> found = resultDirectories();
        EXPECT_EQ(1U, found.size());
        return found.empty() ? "" : found.front();
    }

    std::string optionFileContent() const {
        return readFile(resultDirectory() + "/config/trcap_remote.options");
    }

    /// Each upload as "remote directory, file below the result directory, content", sorted.
    std::vector<std::string> uploads() const {
        std::vector<std::string> found;
        const std::string result = resultDirectory() + "/";
        for (const PackageServer::Upload& upload : server->uploads()) {
            EXPECT_EQ(result, upload.localFilePath.substr(0, result.size()));
            found.push_back(upload.remoteDirectory + ", " +
                            upload.localFilePath.substr(result.size()) + ", " + upload.content);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    const kolvan::test::TemporaryDirectory directory;
    const std::string location = directory.entry("agent/target");
    const std::string executable = location + "/package/bin/kolvan-trcap";
    const std::string temporary = directory.entry("temporary");
    const TemporaryPlace temporaryPlace{temporary};
    const std::shared_ptr<PackageServer> server = std::make_shared<PackageServer>();
    RecordedOutput output;
    std::string lastProblems;
    std::shared_ptr<Operations> operations;
};

// Writes trace files: two with content below data.0, and one that nobody wants.
constexpr const char* kWriteTraces =
    "result=${2%/config/*}\n"
    "mkdir -p \"$result/data.0/sub\" \"$result/log\"\n"
    "printf first > \"$result/data.0/a\"\n"
    "printf second > \"$result/data.0/sub/b\"\n"
    "printf nothing > \"$result/log/c\"\n";

// Construction.

std::string constructionFailure(const std::string& location, const std::string& x86,
                                const std::string& x64) {
    return failureOf([&] {
        return std::make_shared<Operations>(std::make_shared<PackageServer>(), "", location, x86,
                                            x64);
    });
}

TEST_F(OperationsTest, EmptyArgumentsAreRefusedInTheirOrder) {
    EXPECT_EQ("Undefined target package location.", constructionFailure("", "", ""));
    EXPECT_EQ("Undefined target package location.", constructionFailure("", "a", "b"));
    EXPECT_EQ("Undefined x86 target package name.", constructionFailure("target", "", ""));
    EXPECT_EQ("Undefined x86 target package name.", constructionFailure("target", "", "b"));
    EXPECT_EQ("Undefined x64 target package name.", constructionFailure("target", "a", ""));
    EXPECT_EQ("no failure", constructionFailure("target", "a", "b"));
}

TEST_F(OperationsTest, ConstructionTouchesNeitherDiskNorServer) {
    create("612345");

    EXPECT_FALSE(fs::exists(location));
    EXPECT_EQ(Downloads{}, server->downloads());
}

// Readiness.

TEST_F(OperationsTest, CollectorOperationsFailBeforeTheFirstConnect) {
    create();

    EXPECT_EQ(kInaccessible, failureOf([&] { return execute(); }));
    EXPECT_EQ(kInaccessible, failureOf([&] { return collect(); }));
    EXPECT_EQ(kInaccessible, readiness());
    EXPECT_TRUE(resultDirectories().empty());
}

TEST_F(OperationsTest, CancelBeforeTheFirstConnectDoesNothing) {
    offerPackages(collectorScript("612345"));
    create();

    operations->cancelOperations();

    EXPECT_EQ(kInaccessible, readiness());
    (void)connect();
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, DisconnectAndErrorChangeNothing) {
    offerPackages(collectorScript("612345"));
    create();
    operations->onDisconnect();
    operations->onError("some text");
    EXPECT_EQ(kInaccessible, readiness());
    (void)connect();

    std::string printed;
    {
        const CapturedStream standardOutput(STDOUT_FILENO);
        const CapturedStream standardError(STDERR_FILENO);
        operations->onDisconnect();
        operations->onError("some text");
        printed = standardOutput.text() + standardError.text();
    }

    EXPECT_EQ("", printed);
    EXPECT_EQ(kReady, readiness());
    EXPECT_EQ(bothDownloads(), server->downloads());
}

TEST_F(OperationsTest, OperationsWaitForARunningInstallation) {
    offerPackages(collectorScript("612345", "exit 4"));
    create();
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(1);

    std::vector<BackgroundCall<int>> codes;
    for (int number = 0; number < 3; ++number) {
        codes.emplace_back([this] { return execute(); });
        EXPECT_TRUE(codes.back().isBlocked());
    }
    auto collection = collectAsync();
    EXPECT_TRUE(collection.isBlocked());
    EXPECT_TRUE(resultDirectories().empty());
    server->releaseDownloads();

    for (BackgroundCall<int>& code : codes) {
        EXPECT_EQ(4, code.get());
    }
    EXPECT_EQ(4, collection.get());
}

TEST_F(OperationsTest, OperationsThatWaitForAFailingInstallationFail) {
    create();
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(1);
    BackgroundCall failure([this] { return failureOf([this] { return execute(); }); });

    EXPECT_TRUE(failure.isBlocked());
    server->releaseDownloads();

    EXPECT_EQ(kInaccessible, failure.get());
}

TEST_F(OperationsTest, CancelDoesNotWaitForAnInstallation) {
    offerPackages(collectorScript("612345"));
    create();
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(1);

    operations->cancelOperations();

    EXPECT_EQ(1U, server->callsInProgress());
    server->releaseDownloads();
    EXPECT_EQ(kReady, readiness());
}

// Installation.

TEST_F(OperationsTest, BothPackagesAreInstalledInTheirOrder) {
    offerPackages(collectorScript("612345"));
    create("612345");

    EXPECT_EQ(extractionLines("x86.tar.gz") + extractionLines("x64.tar.gz"), connect());

    EXPECT_EQ("kolvan-trcap is not found in " + location + "\n", lastProblems);
    EXPECT_EQ(bothDownloads(), server->downloads());
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, DownloadedArchivesStay) {
    const std::string archive = packageWith(collectorScript("612345"));
    install();

    EXPECT_EQ(archive, readFile(location + "/x86.tar.gz"));
    EXPECT_EQ(archive, readFile(location + "/x64.tar.gz"));
}

TEST_F(OperationsTest, X64PackageIsExtractedOverTheX86One) {
    server->offer("x86.tar.gz", ArchiveBuilder()
                                    .file("package/bin/kolvan-trcap", "x86", 0755)
                                    .file("package/x86only", "x86")
                                    .bytes());
    server->offer("x64.tar.gz", ArchiveBuilder().file("package/bin/kolvan-trcap", "x64").bytes());
    create();

    (void)connect();

    EXPECT_EQ("x64", readFile(executable));
    EXPECT_EQ("x86", readFile(location + "/package/x86only"));
}

TEST_F(OperationsTest, InstalledBuildIsNotInstalledAgain) {
    preinstall(collectorScript("612345", "exit 5"));
    create("612345");

    EXPECT_EQ("kolvan-trcap is found at " + executable + "\nTarget package directory: " + location +
                  "/package\n",
              connect());

    EXPECT_EQ(Downloads{}, server->downloads());
    EXPECT_EQ(5, execute());
}

TEST_F(OperationsTest, OtherBuildIsRemovedAndInstalledAgain) {
    preinstall(collectorScript("612344"));
    (void)directory.write("agent/target/package/old", "");
    offerPackages(collectorScript("612345"));
    create("612345");

    EXPECT_EQ("kolvan-trcap is found at " + executable + "\nTarget package directory: " + location +
                  "/package\nUninstalling existing target package at " + location + "/package\n" +
                  extractionLines("x86.tar.gz") + extractionLines("x64.tar.gz"),
              connect());

    EXPECT_EQ(bothDownloads(), server->downloads());
    EXPECT_FALSE(fs::exists(location + "/package/old"));
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, BuildsAreComparedByteByByte) {
    offerPackages(collectorScript("612345"));
    const std::vector<std::string> others = {"61234",   "6123456",  "0612345",
                                             " 612345", "612345\n", std::string("612345\0", 7)};
    std::size_t downloads = 0;
    for (const std::string& build : others) {
        preinstall(collectorScript("612345"));
        create(build);

        (void)connect();

        downloads += 2;
        EXPECT_EQ(downloads, server->downloads().size()) << build;
    }
}

TEST_F(OperationsTest, EmptyBuildInstallsAtEveryConnect) {
    install();
    EXPECT_EQ(2U, server->downloads().size());

    (void)connect();
    EXPECT_EQ(4U, server->downloads().size());

    (void)connect();
    EXPECT_EQ(6U, server->downloads().size());
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, EmptyBuildDoesNotEqualAMissingVersion) {
    preinstall("#!/bin/sh\necho no number\n");
    offerPackages("#!/bin/sh\n");
    create("");

    (void)connect();

    EXPECT_EQ(bothDownloads(), server->downloads());
}

TEST_F(OperationsTest, BuildInstallsWhereNoneIsReported) {
    preinstall("#!/bin/sh\necho no number\n");
    offerPackages(collectorScript("612345"));
    create("612345");

    (void)connect();

    EXPECT_EQ(bothDownloads(), server->downloads());
}

TEST_F(OperationsTest, InstallationSucceedsWhateverBuildItBrought) {
    offerPackages(collectorScript("1"));
    create("612345");

    (void)connect();

    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, ArchiveNamesAreJoinedToTheLocationWithOneSeparator) {
    for (const auto& [place, name] :
         {std::pair{location, "/x"}, std::pair{location + "/", "x"}, std::pair{location, "x"}}) {
        const auto asked = std::make_shared<PackageServer>();
        operations = std::make_shared<Operations>(asked, "", place, name, "deeper/y");

        (void)connect();

        EXPECT_EQ((Downloads{{name, location + "/x"}, {"deeper/y", location + "/deeper/y"}}),
                  asked->downloads());
    }
}

TEST_F(OperationsTest, RefusedX86DownloadIsNotExtractedAndDoesNotMatter) {
    server->offer("x64.tar.gz", packageWith(collectorScript("612345")));
    create();

    EXPECT_EQ(extractionLines("x64.tar.gz"), connect());

    EXPECT_EQ(bothDownloads(), server->downloads());
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, BadX86ArchiveDoesNotMatter) {
    server->offer("x86.tar.gz", "<html>Not Found</html>");
    server->offer("x64.tar.gz", packageWith(collectorScript("612345")));
    create();

    (void)connect();

    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, RefusedX64DownloadFailsAlthoughTheX86OneSucceeded) {
    server->offer("x86.tar.gz", packageWith(collectorScript("612345")));
    create();

    EXPECT_EQ(extractionLines("x86.tar.gz"), connect());

    EXPECT_EQ(bothDownloads(), server->downloads());
    EXPECT_EQ(kInaccessible, readiness());
    EXPECT_EQ(kInaccessible, failureOf([&] { return execute(); }));
    EXPECT_EQ(kInaccessible, failureOf([&] { return collect(); }));
}

TEST_F(OperationsTest, BadX64ArchiveFailsAlthoughTheX86OneSucceeded) {
    for (const std::string& bad :
         {std::string("<html>Not Found</html>"),
          kolvan::test::truncated(packageWith(collectorScript("612345")))}) {
        server->offer("x86.tar.gz", packageWith(collectorScript("612345")));
        server->offer("x64.tar.gz", bad);
        create();

        (void)connect();

        EXPECT_EQ(kInaccessible, readiness());
    }
}

TEST_F(OperationsTest, PackageWithoutACollectorFails) {
    for (const char* name : {"package/bin/other", "a/b/c/kolvan-trcap"}) {
        const std::string archive = ArchiveBuilder().file(name, "content", 0755).bytes();
        server->offer("x86.tar.gz", archive);
        server->offer("x64.tar.gz", archive);
        create();

        (void)connect();

        EXPECT_EQ(kInaccessible, readiness()) << name;
    }
}

TEST_F(OperationsTest, BrokenX86DownloadEndsTheWholeInstallation) {
    server->offer("x64.tar.gz", packageWith(collectorScript("612345")));
    server->breakDownload("x86.tar.gz", "Couldn't connect to server");
    create();

    (void)connect();

    EXPECT_EQ(Downloads{download("x86.tar.gz")}, server->downloads());
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ("Couldn't connect to server", failureOf([&] { return execute(); }));
        EXPECT_EQ("Couldn't connect to server", failureOf([&] { return collect(); }));
        EXPECT_EQ("Couldn't connect to server", readiness());
    }
    EXPECT_TRUE(resultDirectories().empty());
}

TEST_F(OperationsTest, BrokenX64DownloadIsReportedByEveryOperation) {
    server->offer("x86.tar.gz", packageWith(collectorScript("612345")));
    server->breakDownload("x64.tar.gz", "Recv failure: Connection reset by peer");
    create();

    (void)connect();

    EXPECT_EQ(bothDownloads(), server->downloads());
    EXPECT_EQ("Recv failure: Connection reset by peer", failureOf([&] { return execute(); }));
    EXPECT_EQ("Recv failure: Connection reset by peer", readiness());
}

TEST_F(OperationsTest, OldPackageIsGoneWhenTheNewOneCannotBeHad) {
    preinstall(collectorScript("612344"));
    server->breakDownload("x86.tar.gz", "broken");
    create("612345");

    (void)connect();

    EXPECT_FALSE(fs::exists(location + "/package"));
}

TEST_F(OperationsTest, NextConnectStartsAgainAfterAFailure) {
    server->breakDownload("x86.tar.gz", "broken");
    create();
    (void)connect();
    EXPECT_EQ("broken", readiness());

    offerPackages(collectorScript("612345"));
    (void)connect();
    EXPECT_EQ(kReady, readiness());

    server->breakDownload("x86.tar.gz", "broken again");
    (void)connect();
    EXPECT_EQ("broken again", readiness());
}

TEST_F(OperationsTest, InstallationFailuresAreNotThrownByConnect) {
    server->breakDownload("x86.tar.gz", "broken");
    create();

    EXPECT_NO_THROW(operations->onConnect());

    EXPECT_EQ("broken", readiness());
}

TEST_F(OperationsTest, LocationThatCannotBeMadeIsThrownByConnect) {
    (void)directory.write("agent", "a file");
    create();

    EXPECT_EQ("Failed to create directory '" + location +
                  "' for the target package: " + reasonAgainstDirectory(location),
              failureOf([&] {
                  operations->onConnect();
                  return 0;
              }));

    EXPECT_EQ(kInaccessible, readiness());
}

TEST_F(OperationsTest, FailedConnectLeavesTheInstalledPackageInPlace) {
    install("exit 6");
    fs::rename(location, directory.entry("aside"));
    fs::create_symlink("nowhere", location);

    EXPECT_EQ("Failed to create directory '" + location + "' for the target package: File exists",
              failureOf([&] {
                  operations->onConnect();
                  return 0;
              }));

    fs::remove(location);
    fs::rename(directory.entry("aside"), location);
    EXPECT_EQ(6, execute());
    EXPECT_EQ(2U, server->downloads().size());
}

// Connecting again.

TEST_F(OperationsTest, SecondConnectWaitsForTheFirstInstallation) {
    offerPackages(collectorScript("612345"));
    create();
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(1);

    BackgroundCall second([this] { operations->onConnect(); });
    EXPECT_TRUE(second.isBlocked());
    EXPECT_EQ(1U, server->downloads().size());
    server->releaseDownloads();
    second.get();

    EXPECT_EQ(kReady, readiness());
    EXPECT_EQ(4U, server->downloads().size());
    EXPECT_EQ(1U, server->mostDownloadsAtOnce());
}

TEST_F(OperationsTest, InstallationsNeverOverlap) {
    offerPackages(collectorScript("612345"));
    create();
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kConnects = 25;
    {
        const CapturedStream standardOutput(STDOUT_FILENO);
        const CapturedStream standardError(STDERR_FILENO);
        std::vector<std::future<void>> threads;
        for (std::size_t thread = 0; thread < kThreads; ++thread) {
            threads.push_back(std::async(std::launch::async, [this] {
                for (std::size_t connect = 0; connect < kConnects; ++connect) {
                    operations->onConnect();
                    operations->cancelOperations();
                }
            }));
        }
        for (std::future<void>& thread : threads) {
            thread.get();
        }
        (void)readiness();
    }

    EXPECT_EQ(1U, server->mostDownloadsAtOnce());
    EXPECT_EQ(2 * kThreads * kConnects, server->downloads().size());
    for (std::size_t pair = 0; pair < kThreads * kConnects; ++pair) {
        EXPECT_EQ("x86.tar.gz", server->downloads()[2 * pair].archiveName);
        EXPECT_EQ("x64.tar.gz", server->downloads()[2 * pair + 1].archiveName);
    }
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, ConnectLeavesRunningOperationsAlone) {
    ScriptGate gate(directory.entry("gate"));
    install("echo started; read line < '" + gate.path() + "'; exit 7");
    auto running = std::async(std::launch::async, [this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started"));

    offerPackages(collectorScript("612346", "exit 8"));
    (void)connect();

    EXPECT_EQ(8, execute());
    gate.open();
    EXPECT_EQ(7, running.get());
}

TEST_F(OperationsTest, CollectionOutlivesAConnectAndUploadsItsFiles) {
    ScriptGate gate(directory.entry("gate"));
    install(kWriteTraces + ("echo started; read line < '" + gate.path() + "'; exit 7"));
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));

    offerPackages(collectorScript("612346"));
    (void)connect();
    EXPECT_EQ("no failure", readiness());
    gate.open();

    EXPECT_EQ(7, running.get());
    EXPECT_EQ(kReady, readiness());
    EXPECT_EQ((std::vector<std::string>{"uploads/data.0, data.0/a, first",
                                        "uploads/data.0/sub, data.0/sub/b, second"}),
              uploads());
}

TEST_F(OperationsTest, SecondCollectionIsRefusedAlsoAfterAConnect) {
    ScriptGate gate(directory.entry("gate"));
    install("[ \"$1\" = --option-file ] || exit 0\necho started; read line < '" + gate.path() +
            "'");
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));

    (void)connect();

    EXPECT_EQ("Collection is already running", failureOf([&] { return collect(); }));
    gate.open();
    EXPECT_EQ(0, running.get());
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, CancelEndsACollectionFromBeforeAConnect) {
    ScriptGate gate(directory.entry("gate"));
    install("[ \"$4\" != cancel ] || echo go > '" + gate.path() +
            "'\n[ \"$1\" = --option-file ] || exit 0\necho started; read line < '" + gate.path() +
            "'; exit 5");
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));
    (void)connect();

    operations->cancelOperations();

    EXPECT_EQ(5, running.get());
}

TEST_F(OperationsTest, CancelEndsRunsOfEveryAcceptance) {
    const std::string script = collectorScript("612345", "echo started; exec sleep 1000");
    offerPackages(script);
    create();
    (void)connect();
    BackgroundCall first([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started\n"));
    (void)connect();
    BackgroundCall second([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started\nstarted\n"));

    operations->cancelOperations();

    EXPECT_EQ(128 + SIGTERM, first.get());
    EXPECT_EQ(128 + SIGTERM, second.get());
}

// A collection whose start breaks off stays on its collector's record, and only one cancel can wait
// for its end: the second one fails.
TEST_F(OperationsTest, CancelThatFailsForOneCollectorReachesTheOthersAndIsToldThen) {
    ScriptGate gate(directory.entry("gate"));
    install("[ \"$4\" != cancel ] || exit 0\necho started; read line < '" + gate.path() +
            "'; exit 5");
    fs::permissions(executable, fs::perms(0644));
    const auto refuse = [](const std::string&) { throw std::runtime_error("no receiver"); };
    EXPECT_EQ("no receiver", failureOf([&] {
                  return operations->performCollection("", "uploads", {{}, {}, refuse});
              }));
    fs::permissions(executable, fs::perms(0755));
    BackgroundCall cancelledOnce([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started\n"));
    operations->cancelOperations();
    EXPECT_EQ(128 + SIGTERM, cancelledOnce.get());
    BackgroundCall missed([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started\nstarted\n"));
    (void)connect();
    BackgroundCall reached([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started\nstarted\nstarted\n"));

    EXPECT_THROW(operations->cancelOperations(), std::future_error);

    EXPECT_NO_THROW(lookUntil([&] { return reached.hasEnded(); }, "a run is not cancelled"));
    gate.open();
    gate.open();  // for the run that should have been cancelled
    EXPECT_EQ(128 + SIGTERM, reached.get());
    EXPECT_EQ(5, missed.get());
}

TEST_F(OperationsTest, CancelOfAnEarlierRunDoesNotWaitForTheInstallationThatReplacesItsExecutable) {
    install("echo started; exec sleep 1000");
    BackgroundCall run([this] { return execute(); });
    ASSERT_TRUE(output.waitForOutput("started"));
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(3);

    BackgroundCall cancelled([this] {
        operations->cancelOperations();
        return true;
    });
    EXPECT_NO_THROW(lookUntil([&] { return cancelled.hasEnded(); }, "the cancel waits"));
    server->releaseDownloads();

    EXPECT_TRUE(cancelled.get());
    EXPECT_EQ(128 + SIGTERM, run.get());
}

TEST_F(OperationsTest,
       CancelOfAnEarlierCollectionWaitsForTheInstallationThatReplacesItsExecutable) {
    ScriptGate gate(directory.entry("gate"));
    install("if [ \"$4\" = cancel ]; then echo go > '" + gate.path() +
            "'; exit 1; fi\n"
            "echo started; read line < '" +
            gate.path() + "'; exit 5\n");
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(3);

    BackgroundCall cancelled([this] {
        operations->cancelOperations();
        return true;
    });
    EXPECT_TRUE(cancelled.isBlocked());
    server->releaseDownloads();

    EXPECT_TRUE(cancelled.get());
    EXPECT_EQ(5, running.get());
}

TEST_F(OperationsTest, DestructionWaitsForARunningInstallation) {
    offerPackages(collectorScript("612345"));
    create();
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(1);

    BackgroundCall destroyed([this] {
        operations.reset();
        return server->downloads().size();
    });
    EXPECT_TRUE(destroyed.isBlocked());
    server->releaseDownloads();

    EXPECT_EQ(2U, destroyed.get());
    EXPECT_EQ(0U, server->callsInProgress());
    EXPECT_TRUE(fs::exists(executable));
}

// Running the collector.

TEST_F(OperationsTest, ExecutePassesArgumentsOutputAndCode) {
    install(
        "for argument; do printf '[%s]' \"$argument\"; done\n"
        "printf problem >&2\n"
        "printf '<progress/>' >&3\n"
        "exit 3\n");

    EXPECT_EQ(3, execute({"a", "b c", "", "$HOME", "'"}));

    EXPECT_EQ("[a][b c][][$HOME]['][--ui-output-format][xml][--ui-output-fd][3]",
              output.standardOutput());
    EXPECT_EQ("problem", output.standardError());
    EXPECT_EQ("<progress/>", output.feedback());
}

TEST_F(OperationsTest, RunsForWhichThereIsNoRoomWaitForTheirTurn) {
    install("echo started");
    std::vector<basekit2::Places::Place> others = takeAllPlaces();

    BackgroundCall waiting([this] { return execute(); });
    EXPECT_TRUE(waiting.isBlocked());
    EXPECT_EQ("", output.standardOutput());
    others.pop_back();

    EXPECT_EQ(0, waiting.get());
    EXPECT_EQ("started\n", output.standardOutput());
}

TEST_F(OperationsTest, CancelledRunsThatStillWaitForTheirTurnFail) {
    install("echo started");
    std::vector<basekit2::Places::Place> others = takeAllPlaces();
    BackgroundCall run([this] { return failureOf([this] { return execute(); }); });
    BackgroundCall collection([this] { return failureOf([this] { return collect(); }); });
    EXPECT_TRUE(run.isBlocked());
    EXPECT_TRUE(collection.isBlocked());

    const auto haveEnded = [&] {
        operations->cancelOperations();
        return run.hasEnded() && collection.hasEnded();
    };
    EXPECT_NO_THROW(lookUntil(haveEnded, "runs wait for their turn although they are cancelled"));
    others.clear();

    EXPECT_EQ("Operation was cancelled", run.get());
    EXPECT_EQ("Operation was cancelled", collection.get());
    EXPECT_EQ("", output.standardOutput());
}

TEST_F(OperationsTest, RunWithoutAPackageFailsWithoutWaitingForItsTurn) {
    create();
    (void)connect();
    std::vector<basekit2::Places::Place> others = takeAllPlaces();

    BackgroundCall run([this] { return failureOf([this] { return execute(); }); });
    EXPECT_NO_THROW(lookUntil([&] { return run.hasEnded(); }, "the run waits for its turn"));
    others.clear();

    EXPECT_EQ(kInaccessible, run.get());
}

TEST_F(OperationsTest, RunThatHasWaitedForItsTurnTakesThePackageThatIsThereThen) {
    install("exit 3");
    std::vector<basekit2::Places::Place> others = takeAllPlaces();
    BackgroundCall waiting([this] { return execute(); });
    ASSERT_TRUE(waiting.isBlocked());
    offerPackages(collectorScript("612346", "exit 4"));
    server->holdDownloads();
    operations->onConnect();
    server->waitForDownloads(3);

    others.pop_back();
    EXPECT_TRUE(waiting.isBlocked());
    server->releaseDownloads();

    EXPECT_EQ(4, waiting.get());
}

TEST_F(OperationsTest, UploadsKeepNobodyFromRunning) {
    install(kWriteTraces);
    server->holdUploads();
    std::vector<basekit2::Places::Place> others = takeAllPlaces();
    others.pop_back();
    auto collection = collectAsync();
    server->waitForUploads(2);

    EXPECT_EQ(0, execute());

    server->releaseUploads();
    EXPECT_EQ(0, collection.get());
}

TEST_F(OperationsTest, UploadsForWhichThereIsNoRoomWaitForTheirTurn) {
    install(kWriteTraces);
    basekit2::Places& places = basekit2::process::descriptor_budget().uploads;
    std::vector<basekit2::Places::Place> others = takeAll(places);
    server->holdUploads();
    const std::size_t before = sleepingThreads();
    auto collection = collectAsync();
    // The collection's thread and one for each file, which a held upload would let wait as well.
    EXPECT_NO_THROW(lookUntil([&] { return sleepingThreads() == before + 3; }, "nobody waits"));
    EXPECT_EQ(0U, server->callsInProgress());

    others.clear();
    server->waitForUploads(2);
    server->releaseUploads();

    EXPECT_EQ(0, collection.get());
    EXPECT_EQ(2U, server->uploads().size());
}

TEST_F(OperationsTest, CommandToACollectionNeedsNoTurn) {
    ScriptGate gate(directory.entry("gate"));
    install("if [ \"$1\" = --option-file ]; then echo started; read line < '" + gate.path() +
            "'; exit 0; fi\nexit 9\n");
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));
    const std::vector<basekit2::Places::Place> others = takeAllPlaces();

    EXPECT_EQ(9, operations->collectionCommand("status", {}));

    gate.open();
    EXPECT_EQ(0, running.get());
}

TEST_F(OperationsTest, ExecuteThatCannotStartTheCollectorGivesMinusOne) {
    server->offer("x64.tar.gz", packageWith(collectorScript("612345"), 0644));
    create();
    (void)connect();

    EXPECT_EQ(-1, execute());

    EXPECT_EQ(executable + ": Permission denied\n", output.standardError());
}

TEST_F(OperationsTest, CommandsGoToTheRunningCollection) {
    ScriptGate gate(directory.entry("gate"));
    install("if [ \"$1\" = --option-file ]; then echo started; read line < '" + gate.path() +
            "'; exit 0; fi\n"
            "for argument; do printf '[%s]' \"$argument\"; done\nexit 9\n");
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));
    RecordedOutput commandOutput;

    EXPECT_EQ(9, operations->collectionCommand("stop now", commandOutput.messenger()));

    EXPECT_EQ("[-r][" + resultDirectory() +
                  "][--command][stop now][--ui-output-format][xml][--ui-output-fd][3]",
              commandOutput.standardOutput());
    gate.open();
    EXPECT_EQ(0, running.get());
    EXPECT_EQ("started\n", output.standardOutput());
    EXPECT_EQ(kReady, readiness());
}

TEST_F(OperationsTest, CancelEndsTheRunningCollectionAndItsFilesAreUploaded) {
    ScriptGate gate(directory.entry("gate"));
    install("if [ \"$4\" = cancel ]; then echo go > '" + gate.path() + "'; exit 1; fi\n" +
            kWriteTraces + "echo started; read line < '" + gate.path() + "'; exit 5\n");
    server->holdUploads();
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));

    operations->cancelOperations();

    server->waitForUploads(2);
    EXPECT_TRUE(running.isBlocked());
    server->releaseUploads();
    EXPECT_EQ(5, running.get());
    EXPECT_EQ("started\n", output.standardOutput());
}

// Collections.

TEST_F(OperationsTest, CollectionRunsWithTheOptionFile) {
    install(
        "cat \"$2\"; shift 2\n"
        "for argument; do printf '[%s]' \"$argument\"; done\n");

    EXPECT_EQ(0, collect("-a\n1\n-r\nold"));

    EXPECT_EQ("-a\n1\n-r\n" + resultDirectory() + "\n[--ui-output-format][xml][--ui-output-fd][3]",
              output.standardOutput());
    EXPECT_EQ("-a\n1\n-r\n" + resultDirectory() + "\n", optionFileContent());
}

TEST_F(OperationsTest, CollectorGetsThePathOfTheOptionFile) {
    install("printf '%s|%s' \"$1\" \"$2\"");

    (void)collect("-a");

    EXPECT_EQ("--option-file|" + resultDirectory() + "/config/trcap_remote.options",
              output.standardOutput());
}

TEST_F(OperationsTest, TrailingLineFeedMakesAnEmptyLastLine) {
    install();

    (void)collect("-a\n1\n");

    EXPECT_EQ("-a\n1\n\n", optionFileContent());
}

TEST_F(OperationsTest, EmptyOptionsAreOneEmptyLine) {
    install();

    (void)collect("");

    EXPECT_EQ("\n", optionFileContent());
}

TEST_F(OperationsTest, OptionsAreSplitAtLineFeedsOnlyAndEmptyPiecesAreKept) {
    install();

    (void)collect("\n\n -a\tb \r\n\n-c,d;e\n\n");

    EXPECT_EQ("\n\n -a\tb \r\n\n-c,d;e\n\n\n", optionFileContent());
}

TEST_F(OperationsTest, ResultOptionWithATrailingLineFeedTakesTheEmptyPieceAsItsValue) {
    install();

    (void)collect("-r\n");

    EXPECT_EQ("-r\n" + resultDirectory() + "\n", optionFileContent());
}

/// A name with every lower-case hexadecimal digit replaced by "h".
std::string shapeOf(std::string name) {
    for (char& character : name) {
        if ((character >= '0' && character <= '9') || (character >= 'a' && character <= 'f')) {
            character = 'h';
        }
    }
    return name;
}

TEST_F(OperationsTest, EachCollectionHasAResultDirectoryOfItsOwnThatStays) {
    install(kWriteTraces);

    (void)collect();
    (void)collect();
    (void)collect();

    const std::vector<std::string> results = resultDirectories();
    EXPECT_EQ(3U, results.size());
    for (const std::string& result : results) {
        EXPECT_EQ("hhhh-hhhh-hhhh-hhhh", shapeOf(fs::path(result).filename()));
        EXPECT_EQ("first", readFile(result + "/data.0/a"));
    }
}

TEST_F(OperationsTest, MissingTemporaryDirectoryIsAFailureWithoutARun) {
    install("echo ran");
    fs::remove(temporary);

    EXPECT_TRUE(failureOf([&] { return collect(); }).starts_with("filesystem error: "));

    EXPECT_EQ("", output.standardOutput());
    fs::create_directory(temporary);
}

TEST_F(OperationsTest, OptionFileThatCannotBeWrittenEndsTheOperationBeforeAnyRun) {
    const std::string outcome = inOwnProcess([this] {
        install("echo ran");
        const TemporaryPlace here(directory.entry("temporary/my-data"));
        limitFileSize(0);
        const std::string failure = failureOf([this] { return collect("-a"); });
        return failure + "\noutput: " + output.standardOutput() + output.standardError() +
               output.feedback() + "\nuploads: " + std::to_string(server->uploads().size()) + "\n" +
               readiness();
    });

    std::vector<std::string> results;
    for (const auto& entry : fs::directory_iterator(temporary + "/my-data")) {
        results.push_back(entry.path());
    }
    ASSERT_EQ(1U, results.size());
    const std::string optionFile = results[0] + "/config/trcap_remote.options";
    EXPECT_EQ("Failed to write options file: " + optionFile + "\noutput: \nuploads: 0\n" + kReady,
              outcome);
    EXPECT_EQ("", readFile(optionFile));
}

// Uploads.

TEST_F(OperationsTest, TraceFilesAreUploadedToTheirDirectories) {
    install(kWriteTraces + std::string("printf top > \"$result/data.top\"\n"));

    EXPECT_EQ(0, collect("", "server/dir 7"));

    EXPECT_EQ((std::vector<std::string>{"server/dir 7, data.top, top",
                                        "server/dir 7/data.0, data.0/a, first",
                                        "server/dir 7/data.0/sub, data.0/sub/b, second"}),
              uploads());
}

TEST_F(OperationsTest, UploadDirectoriesAreJoinedWithOneSeparator) {
    install(kWriteTraces + std::string("printf top > \"$result/data.top\"\n"));

    (void)collect("", "/srv/");

    EXPECT_EQ((std::vector<std::string>{"/srv/, data.top, top", "/srv/data.0, data.0/a, first",
                                        "/srv/data.0/sub, data.0/sub/b, second"}),
              uploads());
}

TEST_F(OperationsTest, EmptyUploadDirectoryLeavesTheRelativeOne) {
    install(kWriteTraces + std::string("printf top > \"$result/data.top\"\n"));

    (void)collect("", "");

    EXPECT_EQ((std::vector<std::string>{", data.top, top", "data.0, data.0/a, first",
                                        "data.0/sub, data.0/sub/b, second"}),
              uploads());
}

TEST_F(OperationsTest, FailingCollectorsFilesAreUploadedAndItsCodeReturned) {
    install(kWriteTraces + std::string("exit 42\n"));

    EXPECT_EQ(42, collect());

    EXPECT_EQ(2U, server->uploads().size());
}

TEST_F(OperationsTest, KilledCollectorsFilesAreUploadedAndItsSignalReturned) {
    install(kWriteTraces + std::string("kill -KILL $$\n"));

    EXPECT_EQ(128 + 9, collect());

    EXPECT_EQ(2U, server->uploads().size());
}

TEST_F(OperationsTest, CollectionWithoutTraceFilesUploadsNothing) {
    install("echo > \"${2%/config/*}/log\"; exit 11\n");

    EXPECT_EQ(11, collect());

    EXPECT_TRUE(server->uploads().empty());
}

TEST_F(OperationsTest, DataInTheTemporaryDirectoryMakesEveryFileQualify) {
    install("exit 0\n");
    const std::string place = directory.entry("temporary/my-data");
    const TemporaryPlace here(place);

    (void)collect("-a");

    const std::vector<PackageServer::Upload> found = server->uploads();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(0U, found[0].localFilePath.find(place));
    EXPECT_EQ("uploads/config", found[0].remoteDirectory);
    EXPECT_EQ("-a\n", found[0].content);
}

TEST_F(OperationsTest, AllUploadsRunAtTheSameTime) {
    constexpr std::size_t kFiles = 1000;
    install(
        "mkdir \"${2%/config/*}/data.0\"; cd \"${2%/config/*}/data.0\"\n"
        "n=0; while [ $n -lt 1000 ]; do printf $n > $n; n=$((n + 1)); done\n");
    server->holdUploads();
    auto running = collectAsync();

    server->waitForUploads(kFiles);
    EXPECT_EQ(kFiles, server->callsInProgress());
    server->releaseUploads();

    EXPECT_EQ(0, running.get());
    std::set<std::string> contents;
    for (const PackageServer::Upload& upload : server->uploads()) {
        contents.insert(upload.content);
    }
    EXPECT_EQ(kFiles, contents.size());
}

TEST_F(OperationsTest, RefusedUploadIsReportedAndDoesNotChangeTheCode) {
    install(kWriteTraces + std::string("exit 2\n"));
    server->refuseUpload("b");
    int code = 0;
    std::string problems;
    {
        const CapturedStream captured(STDERR_FILENO);
        code = collect();
        problems = captured.text();
    }

    EXPECT_EQ(2, code);
    EXPECT_EQ("Failed to upload trace file to server: " + resultDirectory() + "/data.0/sub/b\n",
              problems);
    EXPECT_EQ(2U, server->uploads().size());
}

TEST_F(OperationsTest, EveryRefusedUploadIsALineOfItsOwn) {
    install(
        "mkdir \"${2%/config/*}/data.0\"; cd \"${2%/config/*}/data.0\"\n"
        "n=0; while [ $n -lt 50 ]; do : > trace; mkdir $n; : > $n/trace; n=$((n + 1)); done\n");
    server->refuseUpload("trace");
    std::string problems;
    {
        const CapturedStream captured(STDERR_FILENO);
        (void)collect();
        problems = captured.text();
    }

    std::set<std::string> expected;
    std::set<std::string> lines;
    const std::string begin =
        "Failed to upload trace file to server: " + resultDirectory() + "/data.0/";
    expected.insert(begin + "trace");
    for (int number = 0; number < 50; ++number) {
        expected.insert(begin + std::to_string(number) + "/trace");
    }
    std::istringstream stream(problems);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    EXPECT_EQ(expected, lines);
}

TEST_F(OperationsTest, BrokenUploadEndsTheOperationAfterTheOtherUploads) {
    install(kWriteTraces);
    server->breakUpload("a", "Send failure: Broken pipe");
    server->holdUploads();
    BackgroundCall failure([this] { return failureOf([this] { return collect(); }); });
    server->waitForUploads(2);

    server->releaseUpload("a");
    server->waitForEndOfUpload("a");
    EXPECT_TRUE(failure.isBlocked());
    EXPECT_EQ(1U, server->callsInProgress());
    server->releaseUpload("b");

    EXPECT_EQ("Send failure: Broken pipe", failure.get());
    EXPECT_EQ(0U, server->callsInProgress());
    EXPECT_EQ(2U, uploads().size());
    EXPECT_EQ(kReady, readiness());
}

// Writes trace files with the names 0 to 7.
constexpr const char* kWriteEightTraces =
    "mkdir \"${2%/config/*}/data.0\"; cd \"${2%/config/*}/data.0\"\n"
    "for n in 3 0 7 2 6 1 5 4; do : > $n; done\n";

TEST_F(OperationsTest, OfSeveralBrokenUploadsTheFirstInListingOrderCounts) {
    install(kWriteEightTraces);
    for (const char* name : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
        server->breakUpload(name, std::string("broken ") + name);
    }
    server->holdUploads();
    BackgroundCall failure([this] { return failureOf([this] { return collect(); }); });
    server->waitForUploads(8);
    std::vector<std::string> listed;
    for (const TraceFile& traceFile : findTraceFiles(resultDirectory())) {
        listed.push_back(fs::path(traceFile.filePath).filename());
    }
    ASSERT_EQ(8U, listed.size());

    for (auto name = listed.rbegin(); name != listed.rend(); ++name) {
        EXPECT_TRUE(failure.isBlocked());
        server->releaseUpload(*name);
        server->waitForEndOfUpload(*name);
    }

    EXPECT_EQ("broken " + listed.front(), failure.get());
}

/// Lets no thread be started any more once a collection, which has all of its own, has printed.
class ShortageAtOutput {
public:
    OperationMessenger messenger() {
        return {{}, [this](const std::string&) { shortage.begin(); }, {}};
    }

private:
    kolvan::test::ThreadShortage shortage;
};

TEST_F(OperationsTest, UploadsThatFindNoThreadAreMadeAllTheSame) {
    install(kWriteTraces + std::string("echo written; exit 3\n"));
    ShortageAtOutput shortage;

    EXPECT_EQ(3, operations->performCollection("", "uploads", shortage.messenger()));

    EXPECT_EQ((std::vector<std::string>{"uploads/data.0, data.0/a, first",
                                        "uploads/data.0/sub, data.0/sub/b, second"}),
              uploads());
}

TEST_F(OperationsTest, UploadsThatFindNoThreadAreMadeAlsoAfterABrokenOne) {
    install(kWriteEightTraces + std::string("echo written\n"));
    for (const char* name : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
        server->breakUpload(name, std::string("broken ") + name);
    }
    ShortageAtOutput shortage;

    const std::string failure = failureOf(
        [&] { return operations->performCollection("", "uploads", shortage.messenger()); });

    const std::vector<TraceFile> listed = findTraceFiles(resultDirectory());
    ASSERT_EQ(8U, listed.size());
    EXPECT_EQ("broken " + fs::path(listed.front().filePath).filename().string(), failure);
    EXPECT_EQ(8U, server->uploads().size());
}

TEST_F(OperationsTest, NextCollectionRunsAfterABrokenUpload) {
    install(kWriteTraces);
    server->breakUpload("a", "broken");
    EXPECT_EQ("broken", failureOf([&] { return collect(); }));
    EXPECT_EQ("broken", failureOf([&] { return collect(); }));

    EXPECT_EQ(4U, server->uploads().size());
}

TEST_F(OperationsTest, CollectionIsOverForCommandsBeforeItsUploadsAre) {
    install(kWriteTraces);
    server->holdUploads();
    auto running = collectAsync();
    server->waitForUploads(2);

    EXPECT_EQ(kReady, readiness());
    operations->cancelOperations();

    EXPECT_TRUE(running.isBlocked());
    server->releaseUploads();
    EXPECT_EQ(0, running.get());
}

TEST_F(OperationsTest, SecondCollectionFailsWithoutUploads) {
    ScriptGate gate(directory.entry("gate"));
    install("echo started; read line < '" + gate.path() + "'\n" + kWriteTraces);
    auto running = collectAsync();
    ASSERT_TRUE(output.waitForOutput("started"));

    EXPECT_EQ("Collection is already running", failureOf([&] { return collect(); }));

    EXPECT_TRUE(server->uploads().empty());
    gate.open();
    EXPECT_EQ(0, running.get());
    EXPECT_EQ(2U, server->uploads().size());
}

TEST_F(OperationsTest, RefusedCollectionUploadsNothingAlthoughItsPathQualifies) {
    ScriptGate gate(directory.entry("gate"));
    install("echo started; read line < '" + gate.path() + "'\n");
    const TemporaryPlace here(directory.entry("temporary/my-data"));
    BackgroundCall running(
        [this] { return operations->performCollection("first", "uploads", output.messenger()); });
    ASSERT_TRUE(output.waitForOutput("started"));

    EXPECT_EQ("Collection is already running", failureOf([&] { return collect("second"); }));

    EXPECT_TRUE(server->uploads().empty());
    gate.open();
    EXPECT_EQ(0, running.get());
    ASSERT_EQ(1U, server->uploads().size());
    EXPECT_EQ("first\n", server->uploads()[0].content);
}

TEST_F(OperationsTest, CollectorThatCannotBeStartedGivesMinusOneAndLeavesNoCollection) {
    struct Case {
        std::string script;
        mode_t permissions;
        std::string reason;
    };
    for (const Case& unstartable :
         {Case{collectorScript("1"), 0644, "Permission denied"},
          Case{"#!/nonexistent/shell\n", 0755, "No such file or directory"},
          Case{"not a program\n", 0755, "Exec format error"},
          Case{std::string("\x7f"
                           "ELF") +
                   std::string(100, '\1'),
               0755, "Exec format error"}}) {
        server->offer("x64.tar.gz", packageWith(unstartable.script, unstartable.permissions));
        create();
        (void)connect();
        for (int round = 0; round < 2; ++round) {
            RecordedOutput recorded;

            EXPECT_EQ(-1, operations->performCollection("-a", "uploads", recorded.messenger()));

            EXPECT_EQ(executable + ": " + unstartable.reason + "\n", recorded.standardError());
            EXPECT_EQ("", recorded.standardOutput());
            EXPECT_EQ("", recorded.feedback());
        }
        EXPECT_EQ(kReady, readiness());
    }
    EXPECT_TRUE(server->uploads().empty());
}

}  // namespace
}  // namespace cagnt1::operations
