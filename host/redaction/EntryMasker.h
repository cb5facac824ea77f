// Masks the entries of a diagnostic package as their bytes come.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "redaction/WordMasker.h"

namespace vxa::redaction {

enum class Format {
    kText,        // any text: a log, or a dump whose lines have no names of their own
    kStatistics,  // the dump of statistics: counters of interfaces have their names
    kBlacklist,   // the dump of blacklists: its headings have the names of sets
    kJson,        // JSON, or JSON lines
    kRules        // JSON of nft, where tables, chains, sets and interfaces have names
};

// Takes an entry's bytes in pieces and appends what replaces them. The time is linear, and the
// memory bounded whatever the bytes are: what is not of the format is masked like text. Where
// columns are separated by two or more spaces, the spaces after a word make up for its changed
// length as far as they can.
class EntryMasker {
public:
    EntryMasker(Pseudonyms& pseudonyms, Format format);

    // Holds back what could depend on the next bytes, if there are more.
    void Append(std::string& out, std::string_view bytes, bool is_last);

private:
    struct Frame {
        bool is_object;
        std::string key;  // the one whose value is being read
    };
    struct Word {
        std::size_t size = 0;  // in the text
        bool is_escaped = false;
        std::string decoded;     // if it is escaped
        std::size_t copied = 0;  // of the text, to `decoded`
    };

    bool IsJson() const { return m_format == Format::kJson || m_format == Format::kRules; }
    bool IsWordAt(std::size_t at) const;
    std::string_view Rest(std::size_t from) const { return std::string_view(m_text).substr(from); }

    bool Step(std::string& out);
    bool TakeSpaces(std::string& out);
    void TakeSeparator(std::string& out);
    bool TakeWord(std::string& out);

    void BeginLine();
    Place PlaceInLine() const;
    bool AppendCounterName(std::string& out, std::string_view name);

    void TakeJsonSeparator(char c);
    void PushFrame(bool is_object);
    void PopFrame();
    void BeginRaw();
    std::string_view Key(std::size_t above = 0) const;
    void AddToKey(std::string_view text);
    Place PlaceInJson() const;
    bool IsHostName() const;

    // `rest` is what is after the word.
    Word ReadWord() const;
    void AppendWord(std::string& out, std::string_view word, std::string_view rest);
    bool AppendJsonWord(std::string& out, std::string_view word, std::string_view rest);
    bool AppendPrefix(std::string& out, std::string_view word, std::string_view rest);
    bool AppendRange(std::string& out, std::string_view word, std::string_view rest);

    Pseudonyms& m_pseudonyms;
    WordMasker m_words;
    Format m_format;
    std::string m_text;  // not yet masked
    std::size_t m_at = 0;
    bool m_isLast = false;
    std::string m_masked;
    bool m_wasCut = false;        // the last word was a piece of a longer one
    std::ptrdiff_t m_longer = 0;  // by how much the line is longer than it was

    // Of a line of text.
    bool m_isLineStart = true;
    std::size_t m_lineWords = 0;
    std::size_t m_firstName = 0;  // the first of two words that are names; 0 if none is

    // Of JSON.
    bool m_inString = false;
    bool m_isKey = false;
    bool m_isValue = false;      // a colon was read
    bool m_isReference = false;  // the string begins with "@"
    std::vector<Frame> m_frames;
    // The number of frames within a statement about bytes at an offset; 0 outside of one.
    std::size_t m_rawFrames = 0;
    unsigned m_rawBits = 0;    // how many are compared
    std::size_t m_deeper = 0;  // frames beyond those that are kept
    std::string m_rangeEnd;    // what replaces the next word
};

}  // namespace vxa::redaction
