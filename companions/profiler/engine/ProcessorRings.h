#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/engine/PerfRing.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace kolvan::profiler {

/// The ring of one processor. It belongs to an event of our own that counts nothing, so that those
/// of the target write to it from their first moment: a thread that its creator begins then
/// inherits the event, and we are told of it.
struct ProcessorRing {
    int number = 0;        ///< of the processor
    FileDescriptor owner;  ///< the event; becomes readable when the ring is full to a quarter
    std::unique_ptr<PerfRing> ring;
};

/// The rings of all processors that a thread can run on today, or tomorrow.
struct ProcessorRings {
    std::vector<ProcessorRing> all;
    std::size_t bytes = 0;   ///< of each one: all have the same size
    std::size_t enough = 0;  ///< bytes of each one with which few samples are lost
};

/// Opens the largest rings that every processor can have at the same time.
/// @throws Failure when there is no event, or no memory, to be had for them
ProcessorRings openProcessorRings();

/// Of so many descriptors as a program may have, those that events may take; the rest is for files
/// that are opened meanwhile.
rlim_t descriptorsForEvents(rlim_t descriptors) noexcept;

}  // namespace kolvan::profiler
