#include "operations/ArchiveLibrary.h"

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace cagnt1::operations {

namespace {

// Passes on what the loader has found, or throws its reason for finding nothing.
void* require(void* found) {
    if (found == nullptr) {
        // Each thread is told of its own last failure.
        const char* reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe)
        throw std::runtime_error(std::string("Failed to load libarchive: ") + reason);
    }
    return found;
}

}  // namespace

// All of it is bound at once: what is missing shows here, and not in the middle of an extraction.
ArchiveLibrary::ArchiveLibrary(const char* name)
    : handle(require(::dlopen(name, RTLD_NOW | RTLD_LOCAL))) {}

void* ArchiveLibrary::find(const char* name) const {
    return require(::dlsym(handle, name));
}

const ArchiveLibrary& libarchive() {
    static const ArchiveLibrary library(KOLVAN_LIBARCHIVE);
    return library;
}

}  // namespace cagnt1::operations
