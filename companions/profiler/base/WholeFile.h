#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace kolvan::profiler {

/// What a file holds, as far as it can be read; empty when it cannot be opened.
///
/// A file of a process below /proc is read in vain, with ESRCH, when the process goes away after it
/// was opened. The iterators of a stream would throw that.
inline std::string wholeFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();  // the error ends it
    return text.str();
}

}  // namespace kolvan::profiler
