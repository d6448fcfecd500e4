#include "plan/summary.h"

#include <algorithm>

#include "plan/plan.h"
#include "record/json.h"

namespace plan {

namespace {

const size_t kPairCounters = 32;
const size_t kPairsShown = 3;

std::string quoted(std::string_view value) {
    std::string out;
    record::appendJsonString(out, value);
    return out;
}

std::string where(const std::string& file, const std::string& section, const std::string& key) {
    return file + " [" + section + "] " + key;
}

}  // namespace

void Summary::countPair(KeyStats& stats, std::string_view old, std::string_view now) {
    for (Counted& pair : stats.pairs)
        if (pair.old == old && pair.now == now) {
            ++pair.count;
            return;
        }
    if (stats.pairs.size() < kPairCounters) {
        stats.pairs.push_back({std::string(old), std::string(now), 1});
        return;
    }
    // Full: the least counted pair gives its place to this one, which inherits its count.
    auto least = std::min_element(stats.pairs.begin(), stats.pairs.end(),
                                  [](const Counted& a, const Counted& b) { return a.count < b.count; });
    *least = {std::string(old), std::string(now), least->count + 1};
}

void Summary::addImage(const std::string& image, std::string_view messages, int status, std::FILE* out) {
    ++images_;
    if (status == 1) ++changed_;
    if (status == 2) ++failed_;
    size_t at = 0;
    Tag tag;
    std::string_view bytes;
    while (nextMessage(messages, at, tag, bytes)) {
        std::vector<std::string_view> f = fieldsOf(bytes);
        if (tag == Tag::kFailure) std::fprintf(out, "failure %s: %.*s\n", image.c_str(), static_cast<int>(bytes.size()), bytes.data());
        if (tag == Tag::kChange && f.size() == 6) {
            KeyStats& stats = keys_[Key(f[0], f[1], f[2], f[3])];
            ++stats.images;
            if (f[3] == "key") countPair(stats, f[4], f[5]);
        }
        if (tag == Tag::kErased && f.size() == 3) ++erased_[{std::string(f[0]), std::string(f[1]), std::string(f[2])}];
    }
}

void Summary::print(std::FILE* out) const {
    std::fprintf(out, "images %lu, would change %lu, failed %lu\n", images_, changed_, failed_);
    if (!erased_.empty()) std::fprintf(out, "erased by the translation (images, key):\n");
    for (const auto& [id, count] : erased_)
        std::fprintf(out, "  %lu %s\n", count, where(std::get<0>(id), std::get<1>(id), std::get<2>(id)).c_str());
    if (!keys_.empty()) std::fprintf(out, "changes (images, key or file, most frequent old -> new):\n");
    std::vector<const std::pair<const Key, KeyStats>*> rows;
    for (const auto& row : keys_) rows.push_back(&row);
    std::stable_sort(rows.begin(), rows.end(), [](auto a, auto b) { return a->second.images > b->second.images; });
    for (const auto* row : rows) {
        const auto& [file, section, key, op] = row->first;
        const KeyStats& stats = row->second;
        if (op != "key") {
            std::fprintf(out, "  %lu %s %s\n", stats.images, file.c_str(), op.c_str());
            continue;
        }
        std::fprintf(out, "  %lu %s\n", stats.images, where(file, section, key).c_str());
        std::vector<Counted> pairs = stats.pairs;
        std::stable_sort(pairs.begin(), pairs.end(), [](const Counted& a, const Counted& b) { return a.count > b.count; });
        for (size_t i = 0; i < pairs.size() && i < kPairsShown; ++i)
            std::fprintf(out, "      %lu %s -> %s\n", pairs[i].count, quoted(pairs[i].old).c_str(), quoted(pairs[i].now).c_str());
    }
}

}  // namespace plan
