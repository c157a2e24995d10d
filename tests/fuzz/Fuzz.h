#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The entry of a fuzzer: libFuzzer calls it with inputs that it makes up, the replay program with
/// those of the corpus.
/// @return 0, or -1 for an input that is not worth keeping
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kolvan::fuzz {

/// Ends the process with `claim` on standard error where it does not hold; the input that has led
/// there is the finding.
void require(bool holds, std::string_view claim);

/// The same, and shows both texts.
void requireEqual(std::string_view expected, std::string_view actual, std::string_view claim);

/// Keeps what the product prints from drowning the fuzzer's own lines.
void silenceStreams();

/// The number that the next opened descriptor gets: it grows where one is left open.
int lowestFreeDescriptor();

/// What stands before the first NUL.
std::string upToNul(std::string_view text);

/// The pieces between the separators, empty ones included.
std::vector<std::string> split(std::string_view text, char separator);

}  // namespace kolvan::fuzz
