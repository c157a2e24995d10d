#pragma once

#include "tests/faults/FailureSweep.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace kolvan::test {

/// What may fail in an agent's life for want of something, each with the ways in which it may.
inline std::vector<FailureKind> failureKinds() {
    return {
        {"pipe2", EMFILE, "PipeWithoutDescriptors"},
        {"pipe2", ENFILE, "PipeWithoutSystemDescriptors"},
        {"dup", EMFILE, "PipeEndWithoutDescriptors"},
        {"eventfd", EMFILE, "EventWithoutDescriptors"},
        {"eventfd", ENOMEM, "EventWithoutMemory"},
        {"spawn", EAGAIN, "ChildWithoutProcesses"},
        {"spawn", ENOMEM, "ChildWithoutMemory"},
        {"spawn", EMFILE, "ChildWithoutDescriptors"},
        {"thread", EAGAIN, "Thread"},
        {"open", EMFILE, "OpenWithoutDescriptors"},
        {"open", EACCES, "OpenWithoutPermission"},
        {"mkdir", ENOSPC, "DirectoryWithoutSpace"},
        {"write", ENOSPC, "WriteWithoutSpace"},
        {"write", EIO, "WriteToBrokenDevice"},
        {"socket", EMFILE, "SocketWithoutDescriptors"},
        {"poll", ENOMEM, "PollWithoutMemory"},
    };
}

/// Names the case after its kind.
inline std::string nameOfKind(const testing::TestParamInfo<FailureKind>& kind) {
    return kind.param.name;
}

}  // namespace kolvan::test
