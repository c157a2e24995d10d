#pragma once

#include "companions/profiler/objects/ElfObject.h"

#include <cstdint>

namespace kolvan::profiler {

// What instructions themselves say of frames, where nothing describes these. Addresses are as the
// object counts.

/// Whether an instruction that calls may end just before `address`, as it does before every return
/// address. One word in some hundred of other code passes as well.
bool isBehindCall(const ElfObject& object, std::uint64_t address);

/// The same for a call of the code at `callee`, which lies in the same object: where the
/// instruction names whom it calls, that one begins before `callee`, and not long before.
bool isBehindCallOf(const ElfObject& object, std::uint64_t address, std::uint64_t callee);

/// Whether `address` is what the handler of a signal returns to: rt_sigreturn(2), called by two
/// instructions that everybody writes alike.
bool returnsFromSignal(const ElfObject& object, std::uint64_t address);

/// Whether `address` lies in the first instructions of a program, which nobody has called.
bool isProgramStart(const ElfObject& object, std::uint64_t address);

}  // namespace kolvan::profiler
