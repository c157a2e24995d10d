#include "companions/profiler/objects/Sections.h"

#include <gelf.h>

#include <cstddef>

namespace kolvan::profiler {

Elf_Scn* findSection(Elf* elf, std::string_view name) {
    std::size_t names = 0;
    if (::elf_getshdrstrndx(elf, &names) != 0) {
        return nullptr;
    }
    for (Elf_Scn* section = ::elf_nextscn(elf, nullptr); section != nullptr;
         section = ::elf_nextscn(elf, section)) {
        GElf_Shdr header;
        const char* const text = ::gelf_getshdr(section, &header) != nullptr
                                     ? ::elf_strptr(elf, names, header.sh_name)
                                     : nullptr;
        if (text != nullptr && name == text) {
            return section;
        }
    }
    return nullptr;
}

}  // namespace kolvan::profiler
