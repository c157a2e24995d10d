#pragma once

#include "companions/profiler/machine/Machine.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kolvan::profiler {

/// What would help: what to write, and where, or as whom.
struct Cure {
    std::string what;
    std::string where;
};

/// What a machine and a user allow in one respect.
struct Finding {
    enum class Grade { Good, Limited, Missing };

    Grade grade = Grade::Good;
    std::string subject;
    std::string text;         ///< follows the subject, behind a colon
    std::vector<Cure> cures;  ///< any of them is enough; none where nothing is missing
};

/// Judges what was read of a machine. The first finding is whether this user can profile his own
/// processes: `Missing` where he cannot.
std::vector<Finding> checkMachine(const Machine& machine);

/// The findings for people, in lines of so many columns.
std::string checkText(const Machine& machine, const std::vector<Finding>& findings,
                      std::size_t width);

}  // namespace kolvan::profiler
