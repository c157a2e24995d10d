#pragma once

#include <filesystem>
#include <string>

namespace kolvan::check {

/// Tells which build a program is, without starting it: the number that the linker has put into the
/// file (its build ID), as a sentence's end: "build 5f3c…", or why it cannot be told.
std::string buildOf(const std::filesystem::path& program);

}  // namespace kolvan::check
