#include "companions/check/NearestWord.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace kolvan::check {

namespace {

char smallLetter(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

// The Levenshtein distance. `row` holds the distances between the letters of `left` read so far and
// each beginning of `right`.
std::size_t distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char letter : left) {
        std::size_t diagonal = row[0]++;
        for (std::size_t i = 0; i < right.size(); ++i) {
            const bool same = smallLetter(letter) == smallLetter(right[i]);
            const std::size_t changed = diagonal + (same ? 0 : 1);
            diagonal = row[i + 1];
            row[i + 1] = std::min({changed, row[i] + 1, diagonal + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string nearestWord(std::string_view word, const std::vector<std::string>& words) {
    // A key of the size of a book is no slip of the pen, and comparing it would take its time.
    constexpr std::size_t kLongestWord = 200;
    std::string nearest;
    std::size_t least = 0;
    if (word.size() > kLongestWord) {
        return nearest;
    }
    for (const std::string& candidate : words) {
        const std::size_t changes = distance(word, candidate);
        if (changes * 2 < candidate.size() && (nearest.empty() || changes < least)) {
            nearest = candidate;
            least = changes;
        }
    }
    return nearest;
}

}  // namespace kolvan::check
