// The INI document model: a lossless, line-based view of one configuration file.
//
// The file's bytes are held once, as read, and shared by every copy of the document.
// Lines are places in those bytes; only a line that was changed or added has text of
// its own. A section's lines are found when somebody first reads or writes in that
// section, so sections nobody asks about cost the scan that finds their header and
// are written back as the bytes they were. Sections and keys are found through
// indexes of their first occurrence (a duplicate is kept in the text but never
// addressed).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ETL_FileHelper {

// Any node of a document: type() is 3 for a section, 2 for a key line and 1 for
// every other line (comment, blank, or text the parser does not understand); lines of
// that kind that follow each other are one node.
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

class iniSection;

// A line of a section (or before the first section) as a walk over the document
// hands it out: a handle on the line inside its section, valid until the next change.
class iniLine : public iniObject {
public:
    iniLine(iniSection* section, uint32_t index) : section_(section), index_(index) {}

    int type() const override;
    std::string_view name() const;
    std::string_view value() const;

    // The key's value, or `def` for a line that holds no key.
    std::string GetValue(std::string_view def = "") const;
    // Changes the value in the document only; refused (false) for text lines
    // and for values the file syntax cannot carry.
    bool SetValue(std::string_view value);

private:
    iniSection* section_;
    uint32_t index_;
};
using iniKey = iniLine;

// Positions of names, found by hashing: one number per name, the names themselves
// stay where they are (in the file's bytes), so building it allocates once.
class NameIndex {
public:
    bool built() const { return !slots_.empty(); }
    void clear() { slots_.clear(); used_ = 0; }
    // `nameOf(i)` gives the name at position i, or nullopt for a position without one.
    template <typename NameOf>
    void build(uint32_t count, NameOf nameOf);
    template <typename NameOf>
    long find(std::string_view name, NameOf nameOf) const;
    // Adds a position whose name is not in the index yet.
    template <typename NameOf>
    void add(uint32_t position, NameOf nameOf);

private:
    template <typename NameOf>
    void place(std::string_view name, uint32_t position, NameOf nameOf);
    std::vector<uint32_t> slots_;  // position + 1; 0 is a free slot
    uint32_t used_ = 0;
};

class iniSection : public iniObject {
public:
    int type() const override { return kSection; }
    std::string_view name() const;
    // The header and lines as the file had them when it was read (a section changed
    // since is written back otherwise): two sections of equal bytes read the same.
    std::string_view bytesAsRead() const { return std::string_view(*bytes_).substr(begin_, end_ - begin_); }

    // Nodes of the section in file order; pointers stay valid until the next change.
    std::vector<iniObject*> objects();

private:
    friend class iniLine;
    friend class IniText;

    // One key line, or a run of lines that hold none (so that a file of blank lines costs
    // one record, not one per line): its text is `length` bytes at `begin` of the file,
    // line breaks inside a run included, or, once changed, its own text in
    // `edits_[begin]`. `eq` is the place of its '=', kNoKey when it holds no key.
    struct Line {
        static constexpr uint32_t kNoKey = UINT32_MAX;
        uint32_t begin;
        uint32_t length;
        uint32_t eq;
        LineEnd end;
        bool edited;
    };

    // A walk's line handles; a copy of the section starts without any.
    struct Handles {
        std::vector<iniLine> lines;
        Handles() = default;
        Handles(const Handles&) noexcept {}
        Handles& operator=(const Handles&) noexcept {
            lines.clear();
            return *this;
        }
    };

    iniSection(const std::string* bytes, uint32_t begin, uint32_t bodyBegin, LineEnd headerEnd);
    static iniSection added(const std::string* bytes, std::string_view name, LineEnd end);

    std::string_view textOf(const Line& line) const;
    std::string_view nameOf(const Line& line) const;
    std::string_view valueOf(const Line& line) const;
    bool hasHeader() const { return added_ || bodyBegin_ > begin_; }
    std::string_view header() const;
    void parseLines() const;
    bool mayBeNamed(const Line& line, std::string_view key) const;
    std::optional<std::string_view> valueInBytes(std::string_view key) const;
    bool readsFromBytes() const;
    // The value of the first key of that name, or nullopt.
    std::optional<std::string_view> value(std::string_view key) const;
    // Index of the first key line of that name, or -1.
    long indexOf(std::string_view key) const;
    enum class Outcome { kRefused, kSame, kChanged };
    Outcome setLineValue(uint32_t index, std::string_view value);
    // Sets the first key of that name, or adds it after the last key line.
    Outcome setKey(std::string_view key, std::string_view value, LineEnd newline);
    // The ending of the section's last line (its header when it has none), to change;
    // null for lines before the first section when there are none.
    LineEnd* lastEnd();
    void appendTo(std::string& out) const;

    const std::string* bytes_;  // the file's bytes, owned by the document
    uint32_t begin_;            // where the header line starts (the preamble: its first line)
    uint32_t bodyBegin_;        // where the first line after the header starts
    uint32_t end_;              // where the next section starts
    uint32_t lineCount_ = 0;    // lines of the body, counted when the file was read
    uint32_t recordCount_ = 0;  // records its lines take once parsed (see Line)
    LineEnd headerEnd_;
    bool added_ = false;        // made by a set: the header is edits_[0]
    bool changed_ = false;      // written back line by line, not as the bytes it was
    mutable bool parsed_ = false;
    mutable uint32_t scanned_ = 0;  // lines compared by searches without the index
    mutable std::vector<Line> lines_;
    mutable NameIndex keyIndex_;
    std::vector<std::string> edits_;
    Handles handles_;
};

// The whole file: an optional byte-order mark, lines before the first section, sections.
class IniText {
public:
    IniText();
    // A text whose footprint would pass `footprintLimit` is not parsed past it: it comes
    // back empty, with a footprint() above the limit.
    static IniText parse(std::string bytes, size_t footprintLimit = SIZE_MAX);
    std::string serialize() const;

    // The most memory the text can take, its lines parsed and indexed, as read: the
    // bytes, the sections, 32 bytes per record (see iniSection::Line). Sets add their
    // own few bytes to it.
    size_t footprint() const { return footprint_; }

    // The value of the first matching key; empty when the section or key is absent.
    std::optional<std::string_view> find(std::string_view section, std::string_view key) const;
    // Creates the section and the key when missing. False (nothing changed) when a
    // name or the value cannot be written in INI syntax and read back the same.
    bool set(std::string_view section, std::string_view key, std::string_view value);
    // Moves with every set that changed the text; a set of the value already there, or a
    // refused one, leaves it. Values changed through a walk's lines are not counted.
    unsigned long revision() const { return revision_; }

    // Top-level nodes in file order: the lines before the first section, then the sections.
    std::vector<iniObject*> objects();

    static bool isWritableName(std::string_view name, char forbidden);
    static bool isWritableValue(std::string_view value);

private:
    const iniSection* findSection(std::string_view name) const;
    LineEnd newline() const { return newline_ == LineEnd::kNone ? LineEnd::kLf : newline_; }

    std::shared_ptr<const std::string> bytes_;
    uint32_t bomLength_ = 0;
    LineEnd newline_ = LineEnd::kNone;  // ending used for added lines: the file's first one, else LF
    bool opaque_ = false;               // too long to address: kept whole, never searched or set
    unsigned long revision_ = 0;
    size_t footprint_ = 0;
    std::vector<iniSection> sections_;  // [0] holds the lines before the first section; none when empty
    mutable NameIndex sectionIndex_;
    mutable uint32_t sectionsScanned_ = 0;
};

}  // namespace ETL_FileHelper
