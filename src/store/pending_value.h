// One value an INI document has set and not saved yet: what a document holds beside
// the content it loaded, and what the store sets on that content when it is saved.
#pragma once

#include <string>

namespace store {

struct PendingValue {
    std::string section;
    std::string key;
    std::string value;
};

}  // namespace store
