#include "companions/check/LibraryFindings.h"

#include <string>

#include <dlfcn.h>

namespace kolvan::check {

Findings examineLibraries() {
    // It is not closed: the program ends soon.
    if (::dlopen(KOLVAN_LIBARCHIVE, RTLD_NOW | RTLD_LOCAL) != nullptr) {
        return {};
    }
    const std::string reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe): each thread's own
    return {{Severity::Error,
             "library",
             {KOLVAN_LIBARCHIVE},
             "It cannot be loaded, and every installation of the collector fails: " + reason +
                 ". Install it (Debian: the package libarchive13)."}};
}

}  // namespace kolvan::check
