#include "tests/profiler/symbols/LoadedLibrary.h"

#include <stdexcept>

#include <dlfcn.h>

namespace kolvan::test {

namespace {

std::uint64_t asInFile(const void* address) {
    Dl_info info{};
    if (address == nullptr || ::dladdr(address, &info) == 0) {
        throw std::runtime_error("The library has no such function.");
    }
    return reinterpret_cast<std::uint64_t>(address) -
           reinterpret_cast<std::uint64_t>(info.dli_fbase);
}

}  // namespace

LoadedLibrary::LoadedLibrary(const std::string& path)
    : handle(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) {
        throw std::runtime_error(path + " cannot be loaded.");
    }
}

LoadedLibrary::~LoadedLibrary() {
    (void)::dlclose(handle);
}

std::uint64_t LoadedLibrary::addressOf(const std::string& name) const {
    return asInFile(::dlsym(handle, name.c_str()));
}

std::uint64_t LoadedLibrary::addressFrom(const std::string& name) const {
    using Function = const void* (*)();
    const auto function = reinterpret_cast<Function>(::dlsym(handle, name.c_str()));
    return asInFile(function == nullptr ? nullptr : function());
}

}  // namespace kolvan::test
