#include "companions/profiler/objects/ObjectStore.h"

#include "companions/profiler/symbols/SymbolIndex.h"
#include "companions/profiler/unwind/RulesReader.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kolvan::profiler::ElfObject;
using kolvan::profiler::FileDescriptor;
using kolvan::profiler::MappedFile;
using kolvan::profiler::ObjectStore;
using kolvan::profiler::RulesReader;
using kolvan::profiler::SymbolIndex;
using kolvan::test::TemporaryDirectory;
namespace fs = std::filesystem;

/// A file as if this process had mapped it.
MappedFile mapped(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status));
    return {.process = ::getpid(),
            .begin = 0x1000,
            .end = 0x2000,
            .device = status.st_dev,
            .inode = status.st_ino,
            .path = path};
}

/// A mapping of a file's first page that lasts as long as the object.
class OwnMapping {
public:
    explicit OwnMapping(const std::string& path) {
        const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        place = ::mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE, file.get(), 0);
        EXPECT_NE(MAP_FAILED, place);
    }
    ~OwnMapping() { (void)::munmap(place, kSize); }
    OwnMapping(const OwnMapping&) = delete;
    OwnMapping& operator=(const OwnMapping&) = delete;

    std::uint64_t begin() const { return reinterpret_cast<std::uint64_t>(place); }
    std::uint64_t end() const { return begin() + kSize; }

private:
    static constexpr std::size_t kSize = 4'096;
    void* place = MAP_FAILED;
};

class ObjectStoreTest : public testing::Test {
protected:
    ObjectStoreTest() { fs::copy_file(KOLVAN_SYMBOL_LIBRARY, library); }

    const TemporaryDirectory directory;
    const std::string library = directory.entry("a library.so");
    ObjectStore store;
};

TEST_F(ObjectStoreTest, AFileIsOpenedOnceWhateverItsName) {
    const std::string other = directory.entry("other.so");
    fs::create_hard_link(library, other);

    const auto object = store.find(mapped(library));

    ASSERT_NE(nullptr, object);
    EXPECT_EQ(library, object->path());
    EXPECT_EQ(object, store.find(mapped(other)));
}

TEST_F(ObjectStoreTest, AFileThatHasTakenAnothersPlaceIsNotTakenForIt) {
    const MappedFile former = mapped(library);
    fs::rename(library, directory.entry("former.so"));
    fs::copy_file(KOLVAN_SYMBOL_LIBRARY, library);

    EXPECT_EQ(nullptr, store.find(former));
    EXPECT_NE(nullptr, store.find(mapped(library)));
}

TEST_F(ObjectStoreTest, ADeletedFileIsReadThroughItsMapping) {
    const OwnMapping mapping(library);
    MappedFile file = mapped(library);
    file.begin = mapping.begin();
    file.end = mapping.end();
    fs::remove(library);
    file.path += " (deleted)";
    std::ostringstream link;
    link << "/proc/self/map_files/" << std::hex << file.begin << "-" << file.end;
    if (!FileDescriptor(::open(link.str().c_str(), O_RDONLY | O_CLOEXEC))) {
        GTEST_SKIP() << "This user may not read mapped files.";
    }

    const auto object = store.find(file);

    ASSERT_NE(nullptr, object);
    EXPECT_EQ(library, object->path());
}

TEST_F(ObjectStoreTest, TheKernelsLibraryIsAnObject) {
    const auto object = store.find({.process = ::getpid(), .path = "[vdso]"});

    ASSERT_NE(nullptr, object);
    EXPECT_TRUE(SymbolIndex(object).size() > 3);
}

TEST_F(ObjectStoreTest, WhatIsNoElfFileIsNoObject) {
    const std::string fifo = directory.entry("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));

    EXPECT_EQ(nullptr, store.find({.process = ::getpid(), .path = "//anon"}));
    EXPECT_EQ(nullptr, store.find({.process = ::getpid(), .path = "[stack]"}));
    EXPECT_EQ(nullptr, store.find(mapped(directory.write("text", "no ELF file"))));
    EXPECT_EQ(nullptr, store.find(mapped(directory.write("empty", ""))));
    EXPECT_EQ(nullptr, store.find(mapped(fifo)));
    EXPECT_EQ(nullptr, store.find(mapped(directory.path().string())));
}

TEST_F(ObjectStoreTest, ObjectsNeedNoDescriptors) {
    const FileDescriptor before(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int number = before.get();
    const auto object = store.find(mapped(library));
    (void)SymbolIndex(object).size();

    const FileDescriptor after(::open("/dev/null", O_RDONLY | O_CLOEXEC));

    EXPECT_EQ(number + 1, after.get());
}

TEST_F(ObjectStoreTest, AFileThatIsCutShortWhileItIsReadHasNothingThere) {
    const auto object = store.find(mapped(library));
    ASSERT_NE(nullptr, object);
    const std::size_t whole = SymbolIndex(object).size();
    fs::resize_file(library, 100);

    EXPECT_GT(whole, SymbolIndex(store.find(mapped(library))).size());
    RulesReader rules(object);
    for (const ElfObject::Segment& segment : object->segments()) {
        EXPECT_FALSE(rules.read(segment.address).known);
    }
}

TEST_F(ObjectStoreTest, ABusErrorElsewhereEndsTheProcessAsBefore) {
    const auto object = store.find(mapped(library));
    const std::string other = directory.write("other", std::string(4'096, 'x'));
    const OwnMapping mapping(other);
    fs::resize_file(other, 0);
    // A core file would be left behind.
    const rlimit none{0, 0};
    const auto read = [&mapping, &none] {
        (void)::setrlimit(RLIMIT_CORE, &none);
        (void)*reinterpret_cast<const volatile char*>(mapping.begin());
    };

    EXPECT_DEATH(read(), "");
}

}  // namespace
