#include "companions/profiler/unwind/RulesReader.h"

#include "companions/profiler/base/FileDescriptor.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <fcntl.h>

namespace {

using kolvan::profiler::ElfObject;
using kolvan::profiler::FileDescriptor;
using kolvan::profiler::FrameRules;
using kolvan::profiler::Registers;
using kolvan::profiler::RulesReader;
using Source = FrameRules::Source;

/// The files of code that this test has mapped itself.
std::set<std::string> ownFiles() {
    std::set<std::string> files;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos && line.find(" r-xp ") != std::string::npos) {
            files.insert(line.substr(path));
        }
    }
    return files;
}

std::string describe(const FrameRules::Rule& rule) {
    switch (rule.source) {
        case Source::Register:
            return "r" + std::to_string(rule.base) + "+" + std::to_string(rule.number);
        case Source::CfaPlus:
            return "cfa+" + std::to_string(rule.number);
        case Source::AtCfaPlus:
            return "[cfa+" + std::to_string(rule.number) + "]";
        case Source::Expression:
        case Source::AtExpression:
            return "expression";
    }
    return "?";
}

/// The CFA and what is restored, for comparison: "r7+16 16:[cfa+-8]".
std::string describe(const FrameRules& rules) {
    if (!rules.known) {
        return "none";
    }
    std::string text = describe(rules.cfa);
    for (const FrameRules::Rule& rule : rules.restoredRules()) {
        text += " " + std::to_string(rule.target) + ":" + describe(rule);
    }
    return rules.outermost ? text + " outermost" : text;
}

std::string describe(const Dwarf_Op* operations, std::size_t count) {
    const bool isValue = operations[count - 1].atom == DW_OP_stack_value;
    const std::size_t length = isValue ? count - 1 : count;
    if (operations[0].atom == DW_OP_regx) {
        return "r" + std::to_string(operations[0].number) + "+0";
    }
    std::string text;
    if (operations[0].atom == DW_OP_call_frame_cfa && length == 1) {
        text = "cfa+0";
    } else if (operations[0].atom == DW_OP_call_frame_cfa && length == 2 &&
               operations[1].atom == DW_OP_plus_uconst) {
        text = "cfa+" + std::to_string(static_cast<std::int64_t>(operations[1].number));
    } else {
        return "expression";
    }
    return isValue ? text : "[" + text + "]";
}

/// The same by libdw.
std::string describeByLibdw(Dwarf_CFI* frames, std::uint64_t address) {
    Dwarf_Frame* found = nullptr;
    if (::dwarf_cfi_addrframe(frames, address, &found) != 0) {
        return "none";
    }
    const std::unique_ptr<Dwarf_Frame, void (*)(void*)> frame(found, std::free);
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    if (::dwarf_frame_cfa(found, &operations, &count) != 0 || count == 0) {
        return "none";
    }
    std::string text = count == 1 && operations->atom == DW_OP_bregx
                           ? "r" + std::to_string(operations->number) + "+" +
                                 std::to_string(static_cast<std::int64_t>(operations->number2))
                           : "expression";
    bool outermost = false;
    for (int number = 0; number < 17; ++number) {
        std::array<Dwarf_Op, 3> room{};
        EXPECT_EQ(0, ::dwarf_frame_register(found, number, room.data(), &operations, &count));
        if (count > 0) {
            text += " " + std::to_string(number) + ":" + describe(operations, count);
        }
        outermost = outermost || (number == 16 && count == 0 && operations != nullptr);
    }
    return outermost ? text + " outermost" : text;
}

TEST(RulesReaderTest, EveryFewBytesOfCodeHaveTheRulesThatLibdwReads) {
    for (const std::string& path : ownFiles()) {
        const auto object =
            ElfObject::open(FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), path, "");
        ASSERT_NE(nullptr, object) << path;
        const std::unique_ptr<Dwarf_CFI, int (*)(Dwarf_CFI*)> frames(
            ::dwarf_getcfi_elf(object->elf()), ::dwarf_cfi_end);
        ASSERT_NE(nullptr, frames) << path;
        RulesReader reader(object);
        std::size_t known = 0;
        for (const ElfObject::Segment& segment : object->segments()) {
            for (std::uint64_t offset = 0; segment.executable && offset < segment.fileSize;
                 offset += 61) {
                const FrameRules rules = reader.read(segment.address + offset);
                ASSERT_EQ(describeByLibdw(frames.get(), segment.address + offset), describe(rules))
                    << path << " at " << std::hex << segment.address + offset;
                known += rules.known ? 1U : 0U;
            }
        }
        EXPECT_LT(0U, known) << path;
    }
}

}  // namespace
