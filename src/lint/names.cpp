#include "lint/names.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace lint {

namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

// Levenshtein distance: letters put in, left out or changed.
size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::string_view closestName(std::string_view name, const std::vector<std::string_view>& known) {
    // Names far longer than ours are no misspelling of them, and would cost a large table.
    if (name.size() > 64) return {};
    std::string word = lower(name);
    std::string_view best;
    size_t bestDistance = 3;
    for (std::string_view candidate : known) {
        std::string target = lower(candidate);
        size_t distance = word.rfind(target, 0) == 0 ? 1 : editDistance(word, target);
        // A short name allows one letter off, a longer one two.
        size_t allowed = std::min<size_t>(2, target.size() / 3);
        if (distance <= allowed && distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace lint
