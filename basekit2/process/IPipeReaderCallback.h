#pragma once

#include "basekit2/object_interface.h"
#include "basekit2/result.h"

#include <cstdint>

namespace basekit2::process {

/// Receiver of what is read from one pipe.
class IPipeReaderCallback : public serializable_object_interface_t {
public:
    /// Takes one chunk, exactly as it was read. Called on the pipe's reading thread, one chunk at
    /// a time and in the order of the bytes; while it runs the pipe is not read, so it should not
    /// block for long.
    /// @param data `length` bytes, valid during the call only and not terminated
    /// @return the outcome; reading goes on whatever it is
    /// An exception does not reach the reading thread's end: the chunk counts as delivered.
    virtual result_t onData(const char* data, std::int32_t length) = 0;
};

}  // namespace basekit2::process
