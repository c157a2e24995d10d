#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <elf.h>

namespace kolvan::test {

/// Makes ELF files for tests: a note with a build-id and a table of functions, which a test may
/// spoil before they are written.
struct ElfImage {
    struct Function {
        std::string name;
        std::uint64_t address = 0;
        std::uint64_t size = 0;
        unsigned binding = STB_GLOBAL;
        unsigned type = STT_FUNC;
        std::uint16_t section = 1;
    };

    /// Places of the sections.
    enum Place { Nothing, Note, Symbols, Names, Count };

    std::string buildId;  ///< bytes; no note when it is empty
    std::vector<Function> functions;

    /// Changes a file of 64 bits before it is put together.
    std::function<void(Elf64_Ehdr&, std::vector<Elf64_Shdr>&)> spoil = [](auto&, auto&) {};

    /// The file with 64 bits.
    std::string file() const;

    /// The same with 32 bits; nothing is spoiled.
    std::string file32() const;
};

}  // namespace kolvan::test
