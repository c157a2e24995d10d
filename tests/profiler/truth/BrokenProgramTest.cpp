// Programs whose files say nonsense of them: they run, and are profiled all the same.

#include "tests/profiler/truth/TruthTest.h"

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <elf.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class BrokenProgramTest : public TruthTest {
protected:
    /// A fixture that runs as always, although what tells of its code is broken: its sections'
    /// headers, symbols, lines and frames, at some hundred places.
    std::string brokenFixture() {
        std::string bytes = readFile(KOLVAN_TRUTH_FIXTURE);
        Elf64_Ehdr header{};
        std::memcpy(&header, bytes.data(), sizeof header);
        std::vector<std::pair<std::size_t, std::size_t>> places;  // begin and size
        for (std::size_t index = 0; index < header.e_shnum; ++index) {
            Elf64_Shdr section{};
            std::memcpy(&section, bytes.data() + header.e_shoff + index * sizeof section,
                        sizeof section);
            const std::string name = sectionName(bytes, header, section.sh_name);
            const bool isLoaded = (section.sh_flags & SHF_ALLOC) != 0;
            if (section.sh_size > 0 && section.sh_type != SHT_NOBITS &&
                (!isLoaded || name == ".eh_frame" || name == ".eh_frame_hdr")) {
                places.emplace_back(section.sh_offset, section.sh_size);
            }
        }
        // In each second one, the headers too: most of them hide the rest.
        if (std::bernoulli_distribution(0.5)(random)) {
            places.emplace_back(header.e_shoff, header.e_shnum * sizeof(Elf64_Shdr));
        }
        for (const auto& [begin, size] : places) {
            std::uniform_int_distribution<std::size_t> place(begin, begin + size - 1);
            for (int count = 0; count < 20; ++count) {
                bytes[place(random)] =
                    static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
            }
        }
        const std::string program = directory.write("broken", bytes);
        fs::permissions(program, fs::perms::owner_all);
        return program;
    }

private:
    const std::random_device::result_type seed = std::random_device()();
    std::mt19937 random{seed};
    const testing::ScopedTrace trace{__FILE__, __LINE__, "seed " + std::to_string(seed)};

    static std::string sectionName(const std::string& bytes, const Elf64_Ehdr& header,
                                   std::size_t offset) {
        Elf64_Shdr names{};
        std::memcpy(&names, bytes.data() + header.e_shoff + header.e_shstrndx * sizeof names,
                    sizeof names);
        return bytes.c_str() + names.sh_offset + offset;
    }
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, BrokenProgramTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(BrokenProgramTest, IsProfiledWithoutTheNamesThatAreBroken) {
    for (int round = 0; round < 8; ++round) {
        fs::remove_all(directory.entry("result"));
        const std::string program = brokenFixture();

        const Program& collector = collectCommand({program, "kill-itself", "200"}, {"--inlined"});

        EXPECT_EQ("", collector.errors());
        expectWhole("target-ended");
        EXPECT_LT(0U, summary()["profile"]["samples"].GetUint64());
    }
}

}  // namespace
}  // namespace kolvan::test
