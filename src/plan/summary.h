// The summary over many images: per file, section and key, how many images would change
// it and its most frequent old-to-new pairs; the values the translation would erase; the
// images whose run logged a failure. Its memory grows with the keys, not the images: each
// key keeps a fixed number of pair counters (the "space-saving" count, exact while a key
// has no more distinct pairs than counters, an upper bound after).
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace plan {

class Summary {
public:
    // One image's messages (its changes and failures); failures are printed at once.
    void addImage(const std::string& image, std::string_view messages, int status, std::FILE* out);
    void print(std::FILE* out) const;

private:
    using Key = std::tuple<std::string, std::string, std::string, std::string>;  // file, section, key, op
    struct Counted {
        std::string old, now;
        unsigned long count;
    };
    struct KeyStats {
        unsigned long images = 0;
        std::vector<Counted> pairs;
    };
    void countPair(KeyStats& stats, std::string_view old, std::string_view now);

    std::map<Key, KeyStats> keys_;
    std::map<std::tuple<std::string, std::string, std::string>, unsigned long> erased_;
    unsigned long images_ = 0, changed_ = 0, failed_ = 0;
};

}  // namespace plan
