#pragma once

#include <cstddef>
#include <string>

namespace cagnt1 {

/// Makes room for `more` bytes at the end of a text that grows piece by piece.
///
/// A text of megabytes gets four times the room that it needs, as long as there are addresses for
/// it. Memory is taken where something is written, and not where there is room: so a flood's text
/// is moved seldom, and what it is moved out of, a quarter instead of a half, is all that the
/// system has to find and clear twice.
/// @throws std::bad_alloc when there is not even the room that is needed; nothing has changed then
void makeRoom(std::string& text, std::size_t more);

}  // namespace cagnt1
