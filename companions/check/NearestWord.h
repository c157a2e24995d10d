#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kolvan::check {

/// The word of `words` that was probably meant by `word`: the one that takes the fewest letters
/// inserted, left out or changed, where capitals count as small letters. Empty when even that one
/// has less than half of its letters in common with `word`.
std::string nearestWord(std::string_view word, const std::vector<std::string>& words);

}  // namespace kolvan::check
