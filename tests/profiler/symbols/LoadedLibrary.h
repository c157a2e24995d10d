#pragma once

#include <cstdint>
#include <string>

namespace kolvan::test {

/// A library that is loaded into the test, so that the loader tells where its functions are.
class LoadedLibrary {
public:
    explicit LoadedLibrary(const std::string& path);
    ~LoadedLibrary();

    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    /// Address of a function, as the file counts.
    std::uint64_t addressOf(const std::string& name) const;

    /// What the function of that name returns, as the file counts.
    std::uint64_t addressFrom(const std::string& name) const;

private:
    void* handle;
};

}  // namespace kolvan::test
