#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kolvan::check {

enum class Severity {
    Note,     ///< what was seen, for whoever reads
    Warning,  ///< works, and may surprise
    Error,    ///< does not work
};

/// What a finding is about.
struct Place {
    std::string subject;     ///< a file, a directory, a variable of the environment, an address
    std::size_t line = 0;    ///< from 1, of a text file; 0: not in a text
    std::size_t column = 0;  ///< from 1, in characters
};

/// One thing that was found.
struct Finding {
    Severity severity;
    std::string topic;  ///< a word for programs that read the report, the same in all versions
    Place place;
    std::string text;  ///< whole sentences for a person
};

using Findings = std::vector<Finding>;

}  // namespace kolvan::check
