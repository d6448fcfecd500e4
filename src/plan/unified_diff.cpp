#include "plan/unified_diff.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace plan {

namespace {

const int kContext = 3;

std::vector<std::string_view> linesOf(const std::string& text) {
    std::vector<std::string_view> lines;
    for (size_t pos = 0; pos < text.size();) {
        size_t end = text.find('\n', pos);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.emplace_back(text.data() + pos, end - pos);
        pos = end;
    }
    return lines;
}

enum class Edit : char { kSame = ' ', kRemove = '-', kAdd = '+' };

// The shortest edit script (Myers' greedy algorithm; memory grows with the number of
// differences times the length, and a plan's files differ in few lines).
std::vector<Edit> editScript(const std::vector<std::string_view>& a, const std::vector<std::string_view>& b) {
    const long n = static_cast<long>(a.size()), m = static_cast<long>(b.size()), offset = n + m + 1;
    std::vector<long> v(2 * offset + 1, 0);
    std::vector<std::vector<long>> trace;
    for (long d = 0; d <= n + m; ++d) {
        trace.push_back(v);
        bool done = false;
        for (long k = -d; k <= d && !done; k += 2) {
            long x = (k == -d || (k != d && v[offset + k - 1] < v[offset + k + 1])) ? v[offset + k + 1] : v[offset + k - 1] + 1;
            long y = x - k;
            while (x < n && y < m && a[x] == b[y]) ++x, ++y;
            v[offset + k] = x;
            done = x >= n && y >= m;
        }
        if (done) break;
    }
    std::vector<Edit> script;
    long x = n, y = m;
    for (long d = static_cast<long>(trace.size()) - 1; d >= 0; --d) {
        const std::vector<long>& w = trace[d];
        long k = x - y;
        long previousK = (k == -d || (k != d && w[offset + k - 1] < w[offset + k + 1])) ? k + 1 : k - 1;
        long previousX = d == 0 ? 0 : w[offset + previousK], previousY = previousX - previousK;
        while (x > previousX && y > previousY) script.push_back(Edit::kSame), --x, --y;
        if (d > 0) script.push_back(x == previousX ? Edit::kAdd : Edit::kRemove);
        x = previousX, y = previousY;
    }
    std::reverse(script.begin(), script.end());
    return script;
}

std::string range(long start, long count) {
    // A range of no lines names the line before it, as diff -u does.
    std::string text = std::to_string(count == 0 ? start : start + 1);
    return count == 1 ? text : text + "," + std::to_string(count);
}

}  // namespace

std::string unifiedHunks(const std::string& before, const std::string& after, const DiffColours& colours) {
    std::vector<std::string_view> a = linesOf(before), b = linesOf(after);
    std::vector<Edit> script = editScript(a, b);
    std::string out;
    size_t i = 0;
    long ai = 0, bi = 0;  // line numbers at script[i]
    while (i < script.size()) {
        if (script[i] == Edit::kSame) {
            ++i, ++ai, ++bi;
            continue;
        }
        // A hunk: back up the context, then run until kContext*2 unchanged lines follow.
        size_t start = i;
        long back = 0;
        while (start > 0 && back < kContext) --start, ++back;
        // The hunk runs on while the changes are at most 2*kContext unchanged lines apart, as
        // diff -u joins hunks that would touch.
        size_t lastChange = i;
        for (size_t j = i; j < script.size() && j - lastChange <= 2 * kContext + 1; ++j)
            if (script[j] != Edit::kSame) lastChange = j;
        size_t end = std::min(script.size(), lastChange + 1 + kContext);
        long aStart = ai - back, bStart = bi - back, aCount = 0, bCount = 0;
        std::string body;
        for (size_t j = start; j < end; ++j) {
            const Edit e = script[j];
            std::string_view line = e == Edit::kAdd ? b[bStart + bCount] : a[aStart + aCount];
            const char* colour = e == Edit::kAdd ? colours.added : e == Edit::kRemove ? colours.removed : "";
            body += colour;
            body += static_cast<char>(e);
            body.append(line.substr(0, line.size() - (line.back() == '\n')));
            if (*colour) body += colours.reset;
            body += '\n';
            if (line.back() != '\n') body += "\\ No newline at end of file\n";
            if (e != Edit::kAdd) ++aCount;
            if (e != Edit::kRemove) ++bCount;
        }
        out += colours.hunk;
        out += "@@ -" + range(aStart, aCount) + " +" + range(bStart, bCount) + " @@";
        if (*colours.hunk) out += colours.reset;
        out += "\n" + body;
        ai = aStart + aCount, bi = bStart + bCount;
        i = end;
    }
    return out;
}

}  // namespace plan
