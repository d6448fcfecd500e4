// The INI document model: a lossless, line-based view of one configuration file.
//
// Every line of the file is kept with its own bytes and its own line ending, so a
// file that is loaded and saved again comes back byte for byte except where a
// value was set. Sections and keys are found through indexes of their first
// occurrence (a duplicate is kept in the text but never addressed).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ETL_FileHelper {

// Any node of a document: type() is 3 for a section, 2 for a key line and 1 for
// every other line (comment, blank, or text the parser does not understand).
class iniObject {
public:
    enum Type : int { kTextLine = 1, kKey = 2, kSection = 3 };
    virtual ~iniObject() = default;
    virtual int type() const = 0;

protected:
    iniObject() = default;
    iniObject(const iniObject&) = default;
    iniObject& operator=(const iniObject&) = default;
};

// How a line ends: the file's own bytes, kept so an untouched line comes back as it was.
enum class LineEnd : unsigned char { kNone, kLf, kCrLf };

// One line inside a section or before the first section. The line is kept as one
// text (without its ending) with the places of the key's name and value in it, so
// parsing a file costs one allocation per line and writing it back is a copy.
class iniLine : public iniObject {
public:
    static iniLine parse(std::string_view raw, LineEnd end);
    static iniLine makeKey(std::string_view name, std::string_view value, LineEnd end);

    int type() const override { return isKey_ ? kKey : kTextLine; }
    std::string_view name() const { return std::string_view(text_).substr(nameBegin_, nameLength_); }
    std::string_view value() const { return std::string_view(text_).substr(valueBegin_, valueLength_); }

    // The key's value, or `def` for a line that holds no key.
    std::string GetValue(std::string_view def = "") const;
    // Changes the value in the document only; refused (false) for text lines
    // and for values the file syntax cannot carry.
    bool SetValue(std::string_view value);

    void appendTo(std::string& out) const;

private:
    friend class iniSection;
    friend class IniText;

    std::string text_;  // the whole line without its ending
    unsigned nameBegin_ = 0;
    unsigned nameLength_ = 0;
    unsigned valueBegin_ = 0;
    unsigned valueLength_ = 0;
    LineEnd end_ = LineEnd::kLf;
    bool isKey_ = false;
};
using iniKey = iniLine;

class iniSection : public iniObject {
public:
    iniSection(std::string header, std::string name, LineEnd end);

    int type() const override { return kSection; }
    const std::string& name() const { return name_; }

    // Nodes of the section in file order; pointers stay valid until the next change.
    std::vector<iniObject*> objects();

    const iniLine* findKey(std::string_view key) const;
    // Sets the first key of that name, or adds it after the last key line.
    bool setKey(std::string_view key, std::string_view value, LineEnd newline);

    void appendLine(iniLine line) { lines_.push_back(std::move(line)); }
    void appendTo(std::string& out) const;
    // The ending of the section's last line (its header when it has none).
    LineEnd& lastEnd();

private:
    // Index of the first key line of that name, or -1.
    long indexOf(std::string_view key) const;

    std::string header_;
    std::string name_;
    LineEnd end_;
    std::vector<iniLine> lines_;
    // Built on the first look-up in a long section, never for sections nobody asks
    // about: most sections of a file are read and written back untouched.
    mutable std::unordered_map<std::string, size_t> keyIndex_;
    mutable bool indexed_ = false;
};

// The whole file: an optional byte-order mark, lines before the first section, sections.
class IniText {
public:
    static IniText parse(std::string_view bytes);
    std::string serialize() const;

    // The value of the first matching key; empty when the section or key is absent.
    std::optional<std::string_view> find(std::string_view section, std::string_view key) const;
    // Creates the section and the key when missing. False (nothing changed) when a
    // name or the value cannot be written in INI syntax and read back the same.
    bool set(std::string_view section, std::string_view key, std::string_view value);

    // Top-level nodes in file order: the lines before the first section, then the sections.
    std::vector<iniObject*> objects();

    static bool isWritableName(std::string_view name, char forbidden);
    static bool isWritableValue(std::string_view value);

private:
    iniSection* findSection(std::string_view name);
    const iniSection* findSection(std::string_view name) const;
    LineEnd newline() const { return newline_ == LineEnd::kNone ? LineEnd::kLf : newline_; }

    std::string bom_;
    LineEnd newline_ = LineEnd::kNone;  // ending used for added lines: the file's first one, else LF
    size_t size_ = 0;                   // bytes of the file as parsed, to size the output at once
    std::vector<iniLine> preamble_;
    std::vector<iniSection> sections_;
    std::unordered_map<std::string, size_t> sectionIndex_;
};

}  // namespace ETL_FileHelper
