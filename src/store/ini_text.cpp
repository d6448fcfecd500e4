#include "store/ini_text.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace ETL_FileHelper {

namespace {

const std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Offsets are 32-bit to keep a line in 16 bytes; a longer file is kept whole, unread.
const size_t kLargestAddressable = UINT32_MAX - 1;

// Sections this short are searched line by line; an index would cost more than it saves.
const size_t kUnindexedLines = 8;

// What a record can cost parsed: itself, and up to four slots of a key index.
const size_t kRecordFootprint = 16 + 4 * sizeof(uint32_t);

// Blanks are spaces and tabs; everything else, CR included, is part of the text.
bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view trimBlanks(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// A line break or NUL inside a name or value would split or cut the line on the next
// load. One pass over the bytes: find_first_of would look each byte up in the set.
bool hasLineBreakOrNul(std::string_view s) {
    for (char c : s)
        if (c == '\r' || c == '\n' || c == '\0') return true;
    return false;
}

std::string_view endBytes(LineEnd end) {
    return end == LineEnd::kCrLf ? std::string_view("\r\n") : end == LineEnd::kLf ? std::string_view("\n") : "";
}

// The line's text without its ending; a CR counts as part of the ending only before LF.
std::string_view stripEnding(std::string_view line, LineEnd* end) {
    *end = LineEnd::kNone;
    if (line.empty() || line.back() != '\n') return line;
    line.remove_suffix(1);
    *end = LineEnd::kLf;
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
        *end = LineEnd::kCrLf;
    }
    return line;
}

// The next line of `bytes` from `pos`, ending included.
std::string_view lineAt(const std::string& bytes, size_t pos, size_t end) {
    const void* nl = std::memchr(bytes.data() + pos, '\n', end - pos);
    size_t next = nl ? static_cast<size_t>(static_cast<const char*>(nl) - bytes.data()) + 1 : end;
    return std::string_view(bytes).substr(pos, next - pos);
}

// Where the text starts after its leading blanks; its size when it is all blanks. A
// loop, not find_first_not_of, which looks each byte up in the set: this runs on every
// line of every file read.
size_t firstNonBlank(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    return i;
}

// The section name of a header line ("[ name ] anything"), or nullopt for any other line.
std::optional<std::string_view> sectionNameOf(std::string_view text) {
    size_t open = firstNonBlank(text);
    if (open == text.size() || text[open] != '[') return std::nullopt;
    size_t close = text.find(']', open);
    if (close == std::string_view::npos) return std::nullopt;
    return trimBlanks(text.substr(open + 1, close - open - 1));
}

// Where a key line has its '=', or kNoKey: comments, lines without '=' and lines
// whose name would be empty hold no key.
uint32_t equalsOf(std::string_view text) {
    size_t first = firstNonBlank(text);
    if (first == text.size() || text[first] == ';' || text[first] == '#') return UINT32_MAX;
    size_t eq = text.find('=');
    return eq == std::string_view::npos || eq == first ? UINT32_MAX : static_cast<uint32_t>(eq);
}

size_t hashOf(std::string_view name) { return std::hash<std::string_view>{}(name); }

}  // namespace

// ---------------------------------------------------------------- name index

template <typename NameOf>
void NameIndex::place(std::string_view name, uint32_t position, NameOf nameOf) {
    size_t mask = slots_.size() - 1;
    for (size_t i = hashOf(name) & mask;; i = (i + 1) & mask) {
        if (slots_[i] == 0) {
            slots_[i] = position + 1;
            ++used_;
            return;
        }
        if (nameOf(slots_[i] - 1) == name) return;  // the first of a name stays
    }
}

template <typename NameOf>
void NameIndex::build(uint32_t count, NameOf nameOf) {
    size_t size = 16;
    while (size < 2 * static_cast<size_t>(count)) size *= 2;  // at most half full: short probes
    slots_.assign(size, 0);
    used_ = 0;
    for (uint32_t i = 0; i < count; ++i)
        if (std::optional<std::string_view> name = nameOf(i)) place(*name, i, nameOf);
}

template <typename NameOf>
long NameIndex::find(std::string_view name, NameOf nameOf) const {
    size_t mask = slots_.size() - 1;
    for (size_t i = hashOf(name) & mask; slots_[i] != 0; i = (i + 1) & mask)
        if (nameOf(slots_[i] - 1) == name) return static_cast<long>(slots_[i] - 1);
    return -1;
}

// An index that cannot grow (out of memory) is dropped: searches then walk, and find
// what the text holds.
template <typename NameOf>
void NameIndex::add(uint32_t position, NameOf nameOf) try {
    if (2 * (static_cast<size_t>(used_) + 1) > slots_.size()) {
        std::vector<uint32_t> old(slots_.size() * 2, 0);
        old.swap(slots_);
        used_ = 0;
        for (uint32_t slot : old)
            if (slot != 0) place(*nameOf(slot - 1), slot - 1, nameOf);
    }
    place(*nameOf(position), position, nameOf);
} catch (...) {
    clear();
    throw;
}

// ---------------------------------------------------------------- lines

int iniLine::type() const {
    return section_->lines_[index_].eq == iniSection::Line::kNoKey ? kTextLine : kKey;
}

std::string_view iniLine::name() const { return section_->nameOf(section_->lines_[index_]); }

std::string_view iniLine::value() const { return section_->valueOf(section_->lines_[index_]); }

std::string iniLine::GetValue(std::string_view def) const {
    return std::string(type() == kKey ? value() : def);
}

bool iniLine::SetValue(std::string_view value) {
    return section_->setLineValue(index_, value) != iniSection::Outcome::kRefused;
}

// ---------------------------------------------------------------- sections

iniSection::iniSection(const std::string* bytes, uint32_t begin, uint32_t bodyBegin, LineEnd headerEnd)
    : bytes_(bytes), begin_(begin), bodyBegin_(bodyBegin), end_(bodyBegin), headerEnd_(headerEnd) {}

iniSection iniSection::added(const std::string* bytes, std::string_view name, LineEnd end) {
    iniSection section(bytes, 0, 0, end);
    section.added_ = true;
    section.changed_ = true;
    section.edits_.push_back("[" + std::string(name) + "]");
    return section;
}

std::string_view iniSection::textOf(const Line& line) const {
    if (line.edited) return edits_[line.begin];
    return std::string_view(*bytes_).substr(line.begin, line.length);
}

std::string_view iniSection::nameOf(const Line& line) const {
    if (line.eq == Line::kNoKey) return {};
    return trimBlanks(textOf(line).substr(0, line.eq));
}

std::string_view iniSection::valueOf(const Line& line) const {
    if (line.eq == Line::kNoKey) return {};
    return trimBlanks(textOf(line).substr(line.eq + 1));
}

std::string_view iniSection::header() const {
    if (added_) return edits_.front();
    LineEnd ignored;
    return stripEnding(std::string_view(*bytes_).substr(begin_, bodyBegin_ - begin_), &ignored);
}

std::string_view iniSection::name() const { return sectionNameOf(header()).value_or(std::string_view()); }

// Built aside and kept only when whole: a parse that runs out of memory leaves the
// section unparsed, never parsed as empty (a later save would drop its lines).
void iniSection::parseLines() const {
    if (parsed_) return;
    std::vector<Line> lines;
    lines.reserve(recordCount_);
    for (size_t pos = bodyBegin_; pos < end_;) {
        std::string_view raw = lineAt(*bytes_, pos, end_);
        LineEnd end;
        std::string_view text = stripEnding(raw, &end);
        uint32_t eq = equalsOf(text);
        if (eq == Line::kNoKey && !lines.empty() && lines.back().eq == Line::kNoKey) {
            lines.back().length = static_cast<uint32_t>(pos + text.size() - lines.back().begin);  // the run grows
            lines.back().end = end;
        } else {
            lines.push_back(Line{static_cast<uint32_t>(pos), static_cast<uint32_t>(text.size()), eq, end, false});
        }
        pos += raw.size();
    }
    lines_.swap(lines);
    parsed_ = true;
}

std::vector<iniObject*> iniSection::objects() {
    parseLines();
    handles_.lines.clear();
    handles_.lines.reserve(lines_.size());
    std::vector<iniObject*> out;
    out.reserve(lines_.size());
    for (uint32_t i = 0; i < lines_.size(); ++i) out.push_back(&handles_.lines.emplace_back(this, i));
    return out;
}

// A walk looks at one byte of most lines: a key line that starts with its name (most
// do) cannot carry a name of another first byte, nor one longer than what precedes '='.
bool iniSection::mayBeNamed(const Line& line, std::string_view key) const {
    if (line.eq == Line::kNoKey || key.empty() || key.size() > line.eq) return false;
    char first = textOf(line).front();
    return first == key.front() || isBlank(first);
}

long iniSection::indexOf(std::string_view key) const {
    parseLines();
    auto names = [this](uint32_t i) -> std::optional<std::string_view> {
        if (lines_[i].eq == Line::kNoKey) return std::nullopt;
        return nameOf(lines_[i]);
    };
    if (keyIndex_.built()) return keyIndex_.find(key, names);
    long found = -1;
    for (size_t i = 0; i < lines_.size() && found < 0; ++i)
        if (mayBeNamed(lines_[i], key) && nameOf(lines_[i]) == key) found = static_cast<long>(i);
    // Once searches have cost a few walks of the section, an index pays for itself:
    // a rule or a key then costs its own name, however many keys the section holds.
    scanned_ += found < 0 ? static_cast<uint32_t>(lines_.size()) : static_cast<uint32_t>(found + 1);
    if (lines_.size() > kUnindexedLines && scanned_ > 2 * lines_.size())
        keyIndex_.build(static_cast<uint32_t>(lines_.size()), names);
    return found;
}

// The value of the first key line of that name, looked for in the file's bytes. The
// lines it walks count towards the index, as a walk of parsed lines does.
std::optional<std::string_view> iniSection::valueInBytes(std::string_view key) const {
    if (key.empty()) return std::nullopt;  // no key line has an empty name
    for (size_t pos = bodyBegin_; pos < end_;) {
        std::string_view raw = lineAt(*bytes_, pos, end_);
        pos += raw.size();
        ++scanned_;
        // The cheap look of mayBeNamed first: most lines start with a name of their own.
        if (raw.front() != key.front() && !isBlank(raw.front())) continue;
        LineEnd end;
        std::string_view text = stripEnding(raw, &end);
        uint32_t eq = equalsOf(text);
        if (eq != Line::kNoKey && trimBlanks(text.substr(0, eq)) == key) return trimBlanks(text.substr(eq + 1));
    }
    return std::nullopt;
}

// A section that is only read is never parsed: most sections of an ordinary boot are
// asked for a key or two, and their lines would cost more than the walks. Once walks
// have cost a few of the section, it is parsed and indexed as any other.
bool iniSection::readsFromBytes() const {
    return !parsed_ && (lineCount_ <= kUnindexedLines || scanned_ <= 2 * lineCount_);
}

std::optional<std::string_view> iniSection::value(std::string_view key) const {
    if (readsFromBytes()) return valueInBytes(key);
    long i = indexOf(key);
    if (i < 0) return std::nullopt;
    return valueOf(lines_[static_cast<size_t>(i)]);
}

iniSection::Outcome iniSection::setLineValue(uint32_t index, std::string_view value) {
    Line& line = lines_[index];
    if (line.eq == Line::kNoKey || !IniText::isWritableValue(value)) return Outcome::kRefused;
    std::string_view text = textOf(line);
    std::string_view old = valueOf(line);
    if (old == value) return Outcome::kSame;  // the line stays the file's own bytes
    size_t at = static_cast<size_t>(old.data() - text.data());
    // The name, the spacing around '=' and the blanks after the value stay as they were.
    std::string updated;
    updated.reserve(text.size() - old.size() + value.size());
    updated.append(text.substr(0, at)).append(value).append(text.substr(at + old.size()));
    if (!line.edited) {
        edits_.emplace_back();  // first: if it throws, the line still points at the file's bytes
        line.edited = true;
        line.begin = static_cast<uint32_t>(edits_.size() - 1);
    }
    edits_[line.begin] = std::move(updated);
    line.length = static_cast<uint32_t>(edits_[line.begin].size());
    changed_ = true;
    return Outcome::kChanged;
}

LineEnd* iniSection::lastEnd() {
    parseLines();
    if (!lines_.empty()) return &lines_.back().end;
    return hasHeader() ? &headerEnd_ : nullptr;
}

iniSection::Outcome iniSection::setKey(std::string_view key, std::string_view value, LineEnd newline) {
    // The value already there, most sets of an ordinary boot, changes nothing: no parse.
    if (readsFromBytes() && valueInBytes(key) == value) return Outcome::kSame;
    long found = indexOf(key);
    if (found >= 0) return setLineValue(static_cast<uint32_t>(found), value);

    // A new key goes after the last key line, so trailing comments and blank
    // lines stay between this section and the next.
    size_t pos = 0;
    for (size_t i = lines_.size(); i > 0; --i)
        if (lines_[i - 1].eq != Line::kNoKey) {
            pos = i;
            break;
        }
    LineEnd& before = pos == 0 ? headerEnd_ : lines_[pos - 1].end;
    LineEnd end = newline;
    if (before == LineEnd::kNone) {  // the file's last line had no line break: keep it that way
        before = newline;
        end = LineEnd::kNone;
    }
    edits_.push_back(std::string(key).append("=").append(value));
    Line line{static_cast<uint32_t>(edits_.size() - 1), static_cast<uint32_t>(edits_.back().size()),
              static_cast<uint32_t>(key.size()), end, true};
    // Only lines that hold no key follow `pos`, so no indexed position moves.
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(pos), line);
    changed_ = true;
    if (keyIndex_.built())
        keyIndex_.add(static_cast<uint32_t>(pos), [this](uint32_t i) -> std::optional<std::string_view> {
            return nameOf(lines_[i]);
        });
    return Outcome::kChanged;
}

void iniSection::appendTo(std::string& out) const {
    if (!changed_) {
        out.append(*bytes_, begin_, end_ - begin_);
        return;
    }
    if (hasHeader()) out.append(header()).append(endBytes(headerEnd_));
    for (const Line& line : lines_) out.append(textOf(line)).append(endBytes(line.end));
}

// ---------------------------------------------------------------- documents

namespace {

// Every empty document shares one empty text.
const std::shared_ptr<const std::string>& noBytes() {
    static const auto empty = std::make_shared<const std::string>();
    return empty;
}

}  // namespace

// Every document starts empty, and a document made only to be loaded costs no allocation.
IniText::IniText() : bytes_(noBytes()) {}

// One pass finds the section headers and counts the lines between them and the records
// they will take; the lines themselves are parsed when their section is first used.
IniText IniText::parse(std::string bytes, size_t footprintLimit) {
    IniText doc;
    doc.bytes_ = std::make_shared<const std::string>(std::move(bytes));
    const std::string& b = *doc.bytes_;
    doc.footprint_ = b.capacity();
    if (b.size() > kLargestAddressable) {
        doc.opaque_ = true;
        return doc;
    }
    bool inRun = false;  // the previous line of the section held no key: a record is open
    if (std::string_view(b).substr(0, kByteOrderMark.size()) == kByteOrderMark)
        doc.bomLength_ = static_cast<uint32_t>(kByteOrderMark.size());
    doc.sections_.push_back(iniSection(&b, doc.bomLength_, doc.bomLength_, LineEnd::kNone));
    doc.footprint_ += sizeof(iniSection);
    stripEnding(lineAt(b, doc.bomLength_, b.size()), &doc.newline_);  // an empty text has none
    for (size_t pos = doc.bomLength_; pos < b.size();) {
        std::string_view raw = lineAt(b, pos, b.size());
        size_t next = pos + raw.size();
        // Most lines start with a letter: only '[' or a blank can begin a header.
        LineEnd end = LineEnd::kNone;
        if ((raw[0] == '[' || isBlank(raw[0])) && sectionNameOf(stripEnding(raw, &end))) {
            doc.sections_.back().end_ = static_cast<uint32_t>(pos);
            doc.sections_.push_back(iniSection(&b, static_cast<uint32_t>(pos), static_cast<uint32_t>(next), end));
            doc.footprint_ += sizeof(iniSection);
            inRun = false;
        } else {
            iniSection& section = doc.sections_.back();
            ++section.lineCount_;
            bool holdsKey = equalsOf(stripEnding(raw, &end)) != UINT32_MAX;
            if (holdsKey || !inRun) {
                ++section.recordCount_;
                doc.footprint_ += kRecordFootprint;
            }
            inRun = !holdsKey;
        }
        // Stopped as soon as it is known not to fit: many tiny sections would cost far
        // more than their bytes before the end.
        if (doc.footprint_ > footprintLimit) {
            IniText refused;
            refused.footprint_ = doc.footprint_;
            return refused;
        }
        pos = next;
    }
    doc.sections_.back().end_ = static_cast<uint32_t>(b.size());
    doc.footprint_ += (doc.sections_.capacity() - doc.sections_.size()) * sizeof(iniSection);
    return doc;
}

std::string IniText::serialize() const {
    if (opaque_) return *bytes_;
    std::string out;
    out.reserve(bytes_->size() + bytes_->size() / 8 + 64);
    out.append(*bytes_, 0, bomLength_);
    for (const iniSection& section : sections_) section.appendTo(out);
    return out;
}

const iniSection* IniText::findSection(std::string_view name) const {
    auto names = [this](uint32_t i) -> std::optional<std::string_view> {
        if (i == 0) return std::nullopt;  // the lines before the first section have no name
        return sections_[i].name();
    };
    if (sectionIndex_.built()) {
        long i = sectionIndex_.find(name, names);
        return i < 0 ? nullptr : &sections_[static_cast<size_t>(i)];
    }
    const iniSection* found = nullptr;
    size_t i = 1;
    for (; i < sections_.size() && !found; ++i)
        if (sections_[i].name() == name) found = &sections_[i];
    sectionsScanned_ += static_cast<uint32_t>(i - 1);
    if (sections_.size() > kUnindexedLines && sectionsScanned_ > 2 * sections_.size())
        sectionIndex_.build(static_cast<uint32_t>(sections_.size()), names);
    return found;
}

std::optional<std::string_view> IniText::find(std::string_view section, std::string_view key) const {
    const iniSection* s = opaque_ ? nullptr : findSection(section);
    if (!s) return std::nullopt;
    return s->value(key);
}

bool IniText::isWritableName(std::string_view name, char forbidden) {
    return !name.empty() && !hasLineBreakOrNul(name) && name.find(forbidden) == std::string_view::npos &&
           trimBlanks(name).size() == name.size() && name.front() != '[' && name.front() != ';' &&
           name.front() != '#';
}

bool IniText::isWritableValue(std::string_view value) {
    return !hasLineBreakOrNul(value) && trimBlanks(value).size() == value.size();
}

bool IniText::set(std::string_view section, std::string_view key, std::string_view value) {
    if (opaque_ || !isWritableName(section, ']') || !isWritableName(key, '=') || !isWritableValue(value))
        return false;
    iniSection* s = const_cast<iniSection*>(findSection(section));
    if (sections_.empty()) sections_.push_back(iniSection(bytes_.get(), 0, 0, LineEnd::kNone));
    if (!s) {
        // The new section starts on a line of its own, even after a last line without a break.
        LineEnd* lastEnd = sections_.back().lastEnd();
        if (lastEnd && *lastEnd == LineEnd::kNone) {
            *lastEnd = newline();
            sections_.back().changed_ = true;
        }
        sections_.push_back(iniSection::added(bytes_.get(), section, newline()));
        try {
            if (sectionIndex_.built())
                sectionIndex_.add(static_cast<uint32_t>(sections_.size() - 1),
                                  [this](uint32_t i) -> std::optional<std::string_view> { return sections_[i].name(); });
        } catch (...) {
            sections_.pop_back();
            throw;
        }
        s = &sections_.back();
    }
    // Counted before the change, so that a change cut short by an exception still counts.
    unsigned long before = revision_++;
    iniSection::Outcome outcome = s->setKey(key, value, newline());
    if (outcome != iniSection::Outcome::kChanged) revision_ = before;
    return outcome != iniSection::Outcome::kRefused;
}

std::vector<iniObject*> IniText::objects() {
    if (sections_.empty()) return {};
    std::vector<iniObject*> out = sections_.front().objects();
    out.reserve(out.size() + sections_.size() - 1);
    for (size_t i = 1; i < sections_.size(); ++i) out.push_back(&sections_[i]);
    return out;
}

}  // namespace ETL_FileHelper
