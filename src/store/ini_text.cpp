#include "store/ini_text.h"

namespace ETL_FileHelper {

namespace {

const std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Blanks are spaces and tabs; everything else, CR included, is part of the text.
bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view trimBlanks(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// A line break or NUL inside a name or value would split or cut the line on the next load.
bool hasLineBreakOrNul(std::string_view s) {
    return s.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

std::string_view endBytes(LineEnd end) {
    return end == LineEnd::kCrLf ? std::string_view("\r\n") : end == LineEnd::kLf ? std::string_view("\n") : "";
}

// Sections this short are searched line by line; an index would cost more than it saves.
const size_t kUnindexedLines = 16;

}  // namespace

// ---------------------------------------------------------------- lines

iniLine iniLine::parse(std::string_view raw, LineEnd end) {
    iniLine line;
    line.end_ = end;
    line.text_ = raw;
    std::string_view text = trimBlanks(raw);
    size_t eq = raw.find('=');
    bool comment = text.empty() || text.front() == ';' || text.front() == '#';
    if (comment || eq == std::string_view::npos) return line;
    size_t nameBegin = 0;
    while (nameBegin < eq && isBlank(raw[nameBegin])) ++nameBegin;
    size_t nameEnd = eq;
    while (nameEnd > nameBegin && isBlank(raw[nameEnd - 1])) --nameEnd;
    if (nameEnd == nameBegin) return line;
    size_t valueBegin = eq + 1;
    while (valueBegin < raw.size() && isBlank(raw[valueBegin])) ++valueBegin;
    size_t valueEnd = raw.size();
    while (valueEnd > valueBegin && isBlank(raw[valueEnd - 1])) --valueEnd;
    line.isKey_ = true;
    line.nameBegin_ = static_cast<unsigned>(nameBegin);
    line.nameLength_ = static_cast<unsigned>(nameEnd - nameBegin);
    line.valueBegin_ = static_cast<unsigned>(valueBegin);
    line.valueLength_ = static_cast<unsigned>(valueEnd - valueBegin);
    return line;
}

iniLine iniLine::makeKey(std::string_view name, std::string_view value, LineEnd end) {
    iniLine line;
    line.isKey_ = true;
    line.text_.reserve(name.size() + 1 + value.size());
    line.text_.append(name).append("=").append(value);
    line.nameLength_ = static_cast<unsigned>(name.size());
    line.valueBegin_ = static_cast<unsigned>(name.size() + 1);
    line.valueLength_ = static_cast<unsigned>(value.size());
    line.end_ = end;
    return line;
}

std::string iniLine::GetValue(std::string_view def) const {
    return std::string(isKey_ ? value() : def);
}

bool iniLine::SetValue(std::string_view value) {
    if (!isKey_ || !IniText::isWritableValue(value)) return false;
    text_.replace(valueBegin_, valueLength_, value);
    valueLength_ = static_cast<unsigned>(value.size());
    return true;
}

void iniLine::appendTo(std::string& out) const {
    out += text_;
    out += endBytes(end_);
}

// ---------------------------------------------------------------- sections

iniSection::iniSection(std::string header, std::string name, LineEnd end)
    : header_(std::move(header)), name_(std::move(name)), end_(end) {}

std::vector<iniObject*> iniSection::objects() {
    std::vector<iniObject*> out;
    out.reserve(lines_.size());
    for (auto& line : lines_) out.push_back(&line);
    return out;
}

long iniSection::indexOf(std::string_view key) const {
    if (lines_.size() <= kUnindexedLines) {
        for (size_t i = 0; i < lines_.size(); ++i)
            if (lines_[i].isKey_ && lines_[i].name() == key) return static_cast<long>(i);
        return -1;
    }
    if (!indexed_) {
        keyIndex_.clear();
        keyIndex_.reserve(lines_.size());
        for (size_t i = 0; i < lines_.size(); ++i)
            if (lines_[i].isKey_) keyIndex_.emplace(lines_[i].name(), i);  // the first of a name wins
        indexed_ = true;
    }
    auto it = keyIndex_.find(std::string(key));
    return it == keyIndex_.end() ? -1 : static_cast<long>(it->second);
}

const iniLine* iniSection::findKey(std::string_view key) const {
    long i = indexOf(key);
    return i < 0 ? nullptr : &lines_[static_cast<size_t>(i)];
}

LineEnd& iniSection::lastEnd() {
    return lines_.empty() ? end_ : lines_.back().end_;
}

bool iniSection::setKey(std::string_view key, std::string_view value, LineEnd newline) {
    long found = indexOf(key);
    if (found >= 0) return lines_[static_cast<size_t>(found)].SetValue(value);

    // A new key goes after the last key line, so trailing comments and blank
    // lines stay between this section and the next.
    size_t pos = 0;
    for (size_t i = lines_.size(); i > 0; --i)
        if (lines_[i - 1].isKey_) { pos = i; break; }
    LineEnd& before = pos == 0 ? end_ : lines_[pos - 1].end_;
    LineEnd end = newline;
    if (before == LineEnd::kNone) {  // the file's last line had no line break: keep it that way
        before = newline;
        end = LineEnd::kNone;
    }
    // Only lines that hold no key follow `pos`, so no indexed position moves.
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(pos), iniLine::makeKey(key, value, end));
    if (indexed_) keyIndex_.emplace(std::string(key), pos);
    return true;
}

void iniSection::appendTo(std::string& out) const {
    out += header_;
    out += endBytes(end_);
    for (const auto& line : lines_) line.appendTo(out);
}

// ---------------------------------------------------------------- documents

IniText IniText::parse(std::string_view bytes) {
    IniText doc;
    doc.size_ = bytes.size();
    if (bytes.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        doc.bom_ = kByteOrderMark;
        bytes.remove_prefix(kByteOrderMark.size());
    }
    while (!bytes.empty()) {
        size_t nl = bytes.find('\n');
        std::string_view raw = bytes.substr(0, nl);
        LineEnd end = LineEnd::kNone;
        if (nl == std::string_view::npos) {
            bytes = {};
        } else {
            bytes.remove_prefix(nl + 1);
            end = LineEnd::kLf;
            if (!raw.empty() && raw.back() == '\r') {
                raw.remove_suffix(1);
                end = LineEnd::kCrLf;
            }
        }
        if (doc.newline_ == LineEnd::kNone) doc.newline_ = end;

        std::string_view text = trimBlanks(raw);
        size_t close = text.find(']');
        if (!text.empty() && text.front() == '[' && close != std::string_view::npos) {
            std::string name(trimBlanks(text.substr(1, close - 1)));
            doc.sectionIndex_.emplace(name, doc.sections_.size());
            doc.sections_.emplace_back(std::string(raw), std::move(name), end);
        } else if (doc.sections_.empty()) {
            doc.preamble_.push_back(iniLine::parse(raw, end));
        } else {
            doc.sections_.back().appendLine(iniLine::parse(raw, end));
        }
    }
    return doc;
}

std::string IniText::serialize() const {
    std::string out;
    out.reserve(size_ + size_ / 8 + 64);
    out += bom_;
    for (const auto& line : preamble_) line.appendTo(out);
    for (const auto& section : sections_) section.appendTo(out);
    return out;
}

iniSection* IniText::findSection(std::string_view name) {
    auto it = sectionIndex_.find(std::string(name));
    return it == sectionIndex_.end() ? nullptr : &sections_[it->second];
}

const iniSection* IniText::findSection(std::string_view name) const {
    auto it = sectionIndex_.find(std::string(name));
    return it == sectionIndex_.end() ? nullptr : &sections_[it->second];
}

std::optional<std::string_view> IniText::find(std::string_view section, std::string_view key) const {
    const iniSection* s = findSection(section);
    const iniLine* line = s ? s->findKey(key) : nullptr;
    if (!line) return std::nullopt;
    return line->value();
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
    if (!isWritableName(section, ']') || !isWritableName(key, '=') || !isWritableValue(value)) return false;
    iniSection* s = findSection(section);
    if (!s) {
        // The new section starts on a line of its own, even after a last line without a break.
        LineEnd* lastEnd = !sections_.empty()   ? &sections_.back().lastEnd()
                           : !preamble_.empty() ? &preamble_.back().end_
                                                : nullptr;
        if (lastEnd && *lastEnd == LineEnd::kNone) *lastEnd = newline();
        sectionIndex_.emplace(std::string(section), sections_.size());
        sections_.emplace_back("[" + std::string(section) + "]", std::string(section), newline());
        s = &sections_.back();
    }
    return s->setKey(key, value, newline());
}

std::vector<iniObject*> IniText::objects() {
    std::vector<iniObject*> out;
    out.reserve(preamble_.size() + sections_.size());
    for (auto& line : preamble_) out.push_back(&line);
    for (auto& section : sections_) out.push_back(&section);
    return out;
}

}  // namespace ETL_FileHelper
