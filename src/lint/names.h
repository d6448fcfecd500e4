// Telling a misspelt attribute name from a name nobody meant as one of ours.
#pragma once

#include <string_view>
#include <vector>

namespace lint {

// The known name `name` was most likely meant to be: the same but for case, a few
// letters off, or a longer word it begins ("dstSection"). Empty when none is close.
std::string_view closestName(std::string_view name, const std::vector<std::string_view>& known);

}  // namespace lint
