#pragma once

#include <future>
#include <string>

namespace cagnt1::operations {

class Collector;

/// Record of the one collection that runs.
struct RunningCollection {
    std::string resultDirectory;
    std::string optionFilePath;
    Collector* collector;         // owns this record; runs the commands to the collection
    std::promise<void> finished;  // satisfied once, when the collection's process has ended
};

}  // namespace cagnt1::operations
