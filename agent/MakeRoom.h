#pragma once

#include <cstddef>
#include <string>

namespace cagnt1 {

/// Makes room for `more` bytes at the end of a text that grows piece by piece.
///
/// A text of a megabyte or more gets four times the room that it needs, as long as there are
/// addresses for it. Room takes no memory before something is written there, and the text of a
/// flood is moved half as often as it would be by doubling.
/// @throws std::bad_alloc when there is not even the room that is needed; nothing has changed then
void makeRoom(std::string& text, std::size_t more);

}  // namespace cagnt1
