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

}  // namespace

// ---------------------------------------------------------------- lines

iniLine iniLine::parse(std::string_view raw, std::string_view eol) {
    iniLine line;
    line.eol_ = eol;
    std::string_view text = trimBlanks(raw);
    size_t eq = raw.find('=');
    bool comment = text.empty() || text.front() == ';' || text.front() == '#';
    if (comment || eq == std::string_view::npos || trimBlanks(raw.substr(0, eq)).empty()) {
        line.head_ = raw;
        return line;
    }
    size_t valueStart = eq + 1;
    while (valueStart < raw.size() && isBlank(raw[valueStart])) ++valueStart;
    size_t valueEnd = raw.size();
    while (valueEnd > valueStart && isBlank(raw[valueEnd - 1])) --valueEnd;
    line.isKey_ = true;
    line.name_ = trimBlanks(raw.substr(0, eq));
    line.head_ = raw.substr(0, valueStart);
    line.value_ = raw.substr(valueStart, valueEnd - valueStart);
    line.tail_ = raw.substr(valueEnd);
    return line;
}

iniLine iniLine::makeKey(std::string_view name, std::string_view value, std::string_view eol) {
    iniLine line;
    line.isKey_ = true;
    line.name_ = name;
    line.head_ = std::string(name) + "=";
    line.value_ = value;
    line.eol_ = eol;
    return line;
}

std::string iniLine::GetValue(std::string_view def) const {
    return isKey_ ? value_ : std::string(def);
}

bool iniLine::SetValue(std::string_view value) {
    if (!isKey_ || !IniText::isWritableValue(value)) return false;
    value_ = value;
    return true;
}

void iniLine::appendTo(std::string& out) const {
    out += head_;
    out += value_;
    out += tail_;
    out += eol_;
}

// ---------------------------------------------------------------- sections

iniSection::iniSection(std::string header, std::string name, std::string eol)
    : header_(std::move(header)), name_(std::move(name)), eol_(std::move(eol)) {}

std::vector<iniObject*> iniSection::objects() {
    std::vector<iniObject*> out;
    out.reserve(lines_.size());
    for (auto& line : lines_) out.push_back(&line);
    return out;
}

const iniLine* iniSection::findKey(std::string_view key) const {
    auto it = keyIndex_.find(std::string(key));
    return it == keyIndex_.end() ? nullptr : &lines_[it->second];
}

void iniSection::appendLine(iniLine line) {
    if (line.type() == kKey) keyIndex_.emplace(line.name(), lines_.size());
    lines_.push_back(std::move(line));
}

void iniSection::indexKeys() {
    keyIndex_.clear();
    for (size_t i = 0; i < lines_.size(); ++i)
        if (lines_[i].type() == kKey) keyIndex_.emplace(lines_[i].name(), i);
}

std::string& iniSection::lastEol() {
    return lines_.empty() ? eol_ : lines_.back().eol_;
}

bool iniSection::setKey(std::string_view key, std::string_view value, std::string_view newline) {
    auto it = keyIndex_.find(std::string(key));
    if (it != keyIndex_.end()) return lines_[it->second].SetValue(value);

    // A new key goes after the last key line, so trailing comments and blank
    // lines stay between this section and the next.
    size_t pos = 0;
    for (size_t i = lines_.size(); i > 0; --i)
        if (lines_[i - 1].type() == kKey) { pos = i; break; }
    std::string& before = pos == 0 ? eol_ : lines_[pos - 1].eol_;
    std::string eol(newline);
    if (before.empty()) {  // the file's last line had no line break: keep it that way
        before = newline;
        eol.clear();
    }
    bool atEnd = pos == lines_.size();
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(pos), iniLine::makeKey(key, value, eol));
    if (atEnd) keyIndex_.emplace(std::string(key), pos);
    else indexKeys();
    return true;
}

void iniSection::appendTo(std::string& out) const {
    out += header_;
    out += eol_;
    for (const auto& line : lines_) line.appendTo(out);
}

// ---------------------------------------------------------------- documents

IniText IniText::parse(std::string_view bytes) {
    IniText doc;
    if (bytes.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        doc.bom_ = kByteOrderMark;
        bytes.remove_prefix(kByteOrderMark.size());
    }
    while (!bytes.empty()) {
        size_t nl = bytes.find('\n');
        std::string_view raw = bytes.substr(0, nl);
        std::string_view eol;
        if (nl == std::string_view::npos) {
            bytes = {};
        } else {
            bytes.remove_prefix(nl + 1);
            eol = "\n";
            if (!raw.empty() && raw.back() == '\r') {
                raw.remove_suffix(1);
                eol = "\r\n";
            }
        }
        if (doc.newline_.empty() && !eol.empty()) doc.newline_ = eol;

        std::string_view text = trimBlanks(raw);
        size_t close = text.find(']');
        if (!text.empty() && text.front() == '[' && close != std::string_view::npos) {
            std::string name(trimBlanks(text.substr(1, close - 1)));
            doc.sectionIndex_.emplace(name, doc.sections_.size());
            doc.sections_.emplace_back(std::string(raw), std::move(name), std::string(eol));
        } else if (doc.sections_.empty()) {
            doc.preamble_.push_back(iniLine::parse(raw, eol));
        } else {
            doc.sections_.back().appendLine(iniLine::parse(raw, eol));
        }
    }
    return doc;
}

std::string IniText::serialize() const {
    std::string out = bom_;
    for (const auto& line : preamble_) line.appendTo(out);
    for (const auto& section : sections_) section.appendTo(out);
    return out;
}

std::string_view IniText::newline() const {
    return newline_.empty() ? std::string_view("\n") : std::string_view(newline_);
}

iniSection* IniText::findSection(std::string_view name) {
    auto it = sectionIndex_.find(std::string(name));
    return it == sectionIndex_.end() ? nullptr : &sections_[it->second];
}

const iniSection* IniText::findSection(std::string_view name) const {
    auto it = sectionIndex_.find(std::string(name));
    return it == sectionIndex_.end() ? nullptr : &sections_[it->second];
}

const std::string* IniText::find(std::string_view section, std::string_view key) const {
    const iniSection* s = findSection(section);
    const iniLine* line = s ? s->findKey(key) : nullptr;
    return line ? &line->value() : nullptr;
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
        std::string* lastEol = !sections_.empty()   ? &sections_.back().lastEol()
                               : !preamble_.empty() ? &preamble_.back().eol_
                                                    : nullptr;
        if (lastEol && lastEol->empty()) *lastEol = newline();
        sectionIndex_.emplace(std::string(section), sections_.size());
        sections_.emplace_back("[" + std::string(section) + "]", std::string(section), std::string(newline()));
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
