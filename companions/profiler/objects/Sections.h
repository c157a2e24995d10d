#pragma once

#include <string_view>

struct Elf;
struct Elf_Scn;

namespace kolvan::profiler {

/// The first section of that name. @return null when there is none; owned by `elf`
Elf_Scn* findSection(Elf* elf, std::string_view name);

}  // namespace kolvan::profiler
