#pragma once

#include <cstddef>
#include <string>

namespace kolvan::bench {

/// Writes a profile as the collector writes them, of a program that was never run.
///
/// Its stacks have 8 to 40 calls. Each function calls eight others, the first one most of the time:
/// the tree of a million samples has 736,000 nodes.
void writeMadeProfile(std::size_t samples, const std::string& path);

}  // namespace kolvan::bench
