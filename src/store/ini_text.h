// The INI document model: a lossless, line-based view of one configuration file.
//
// Every line of the file is kept with its own bytes and its own line ending, so a
// file that is loaded and saved again comes back byte for byte except where a
// value was set. Sections and keys are found through indexes of their first
// occurrence (a duplicate is kept in the text but never addressed).
#pragma once

#include <memory>
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

// One line inside a section or before the first section.
class iniLine : public iniObject {
public:
    static iniLine parse(std::string_view raw, std::string_view eol);
    static iniLine makeKey(std::string_view name, std::string_view value, std::string_view eol);

    int type() const override { return isKey_ ? kKey : kTextLine; }
    const std::string& name() const { return name_; }
    const std::string& value() const { return value_; }

    // The key's value, or `def` for a line that holds no key.
    std::string GetValue(std::string_view def = "") const;
    // Changes the value in the document only; refused (false) for text lines
    // and for values the file syntax cannot carry.
    bool SetValue(std::string_view value);

    void appendTo(std::string& out) const;
    const std::string& eol() const { return eol_; }
    void setEol(std::string_view eol) { eol_ = eol; }

private:
    friend class iniSection;
    friend class IniText;

    bool isKey_ = false;
    std::string head_;   // bytes before the value: the whole line for a text line
    std::string name_;
    std::string value_;
    std::string tail_;   // blanks after the value
    std::string eol_;    // "\n", "\r\n" or "" for a last line without one
};
using iniKey = iniLine;

class iniSection : public iniObject {
public:
    iniSection(std::string header, std::string name, std::string eol);

    int type() const override { return kSection; }
    const std::string& name() const { return name_; }

    // Nodes of the section in file order; pointers stay valid until the next change.
    std::vector<iniObject*> objects();

    const iniLine* findKey(std::string_view key) const;
    // Sets the first key of that name, or adds it after the last key line.
    bool setKey(std::string_view key, std::string_view value, std::string_view newline);

    void appendLine(iniLine line);
    void appendTo(std::string& out) const;
    // The last line of the section (its header when it has none).
    std::string& lastEol();

private:
    void indexKeys();

    std::string header_;
    std::string name_;
    std::string eol_;
    std::vector<iniLine> lines_;
    std::unordered_map<std::string, size_t> keyIndex_;
};

// The whole file: an optional byte-order mark, lines before the first section, sections.
class IniText {
public:
    static IniText parse(std::string_view bytes);
    std::string serialize() const;

    // The value of the first matching key, or null when the section or key is absent.
    const std::string* find(std::string_view section, std::string_view key) const;
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
    std::string_view newline() const;

    std::string bom_;
    std::string newline_;  // ending used for added lines: the file's first one, else "\n"
    std::vector<iniLine> preamble_;
    std::vector<iniSection> sections_;
    std::unordered_map<std::string, size_t> sectionIndex_;
};

}  // namespace ETL_FileHelper
