#pragma once

#include "basekit2/object_interface.h"
#include "basekit2/result.h"

#include <cstdint>

namespace basekit2::process {

/// Receiver of what is read from one pipe.
class IPipeReaderCallback : public serializable_object_interface_t {
public:
    /// Takes one chunk, exactly as it was read. Called on the child's reading thread, which serves
    /// all of its pipes: one chunk at a time, those of a pipe in the order of the bytes. While it
    /// runs none of the child's pipes is read, so it should do no more than keep the data; it must
    /// not wait for what comes over another pipe of that child.
    /// @param data `length` bytes, valid during the call only and not terminated
    /// @return the outcome; reading goes on whatever it is
    /// An exception does not reach the reading thread's end: the chunk counts as delivered.
    virtual result_t onData(const char* data, std::int32_t length) = 0;
};

}  // namespace basekit2::process
