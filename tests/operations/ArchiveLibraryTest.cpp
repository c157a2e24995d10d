#include "operations/ArchiveLibrary.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace cagnt1::operations {
namespace {

constexpr const char* kNoLibrary = "libno-such-library.so.1";
constexpr const char* kOtherLibrary = "libc.so.6";  // a library without any of the functions

/// The words of the last call of the loader that has failed on this thread.
std::string loaderText() {
    const char* text = ::dlerror();
    return text != nullptr ? text : "no failure";
}

std::string failureToLoad(const char* name) {
    try {
        const ArchiveLibrary library(name);
        return "loaded";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(ArchiveLibraryTest, LibraryThatIsMissingIsReportedInTheWordsOfTheLoader) {
    ASSERT_EQ(nullptr, ::dlopen(kNoLibrary, RTLD_NOW));
    const std::string expected = "Failed to load libarchive: " + loaderText();

    EXPECT_EQ(expected, failureToLoad(kNoLibrary));
}

TEST(ArchiveLibraryTest, LibraryThatLacksAFunctionIsReportedInTheWordsOfTheLoader) {
    void* const library = ::dlopen(kOtherLibrary, RTLD_NOW);
    ASSERT_EQ(nullptr, ::dlsym(library, "archive_entry_hardlink"));
    const std::string expected = "Failed to load libarchive: " + loaderText();
    ASSERT_EQ(0, ::dlclose(library));

    EXPECT_EQ(expected, failureToLoad(kOtherLibrary));
}

TEST(ArchiveLibraryTest, LibraryIsTheOneWhoseHeadersWereCompiled) {
    Dl_info function;
    ASSERT_NE(0, ::dladdr(reinterpret_cast<void*>(libarchive().archive_read_new), &function));

    EXPECT_STREQ("archive_read_new", function.dli_sname);
    const std::string file = function.dli_fname;
    EXPECT_EQ(KOLVAN_LIBARCHIVE, file.substr(file.rfind('/') + 1));
}

}  // namespace
}  // namespace cagnt1::operations
