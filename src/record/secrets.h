// Which values of a run may not be shown. A value in protected form ("pw1:...") is
// shown as "(protected)"; the value of a key in the protected-key list
// (/phone/resource/encryptConfig.xml; an account entry counts in every account file)
// or of a protecting rule's destination (configTranslate.xml, dstEncrypt="1") is
// shown as "(masked)", before and after alike. The empty value is shown as it is: that
// a password is empty, or was emptied, is what an integrator needs to see.
#pragma once

#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "record/change.h"

namespace record {

class Secrets {
public:
    // Reads both lists through the store, as the run left them.
    void load();

    // The value as it may be shown, for the key `key` of section `section` in `file`.
    std::string shown(const std::string& file, const std::string& section, const std::string& key,
                      const std::string& value) const;

    // Masks the change's values in place, marking it masked when any was.
    void mask(Change& change) const;

    // An INI file's text with every value that may not be shown replaced, line by line
    // (for a diff of the file). Lines are found as the INI reader finds them.
    std::string maskText(const std::string& file, const std::string& bytes) const;

private:
    bool isSecret(const std::string& file, const std::string& section, const std::string& key) const;

    std::set<std::tuple<std::string, std::string, std::string>> keys_;  // file, section, key
    std::set<std::pair<std::string, std::string>> accountKeys_;         // section, key
};

}  // namespace record
