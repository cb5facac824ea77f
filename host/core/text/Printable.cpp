// Text and bytes from anywhere, written so that terminals show them safely.
#include "text/Printable.h"

#include <algorithm>
#include <cstdio>

#include "text/HexEscape.h"
#include "text/Utf8.h"
#include "vxa_core/text.h"

namespace VxaCore {

namespace {

constexpr std::size_t kHexRowBytes = 16;

// C1 controls; zero-width characters, marks, embeddings and isolates that change the writing
// direction; the deprecated format characters; line and paragraph separators.
bool IsUnsafe(char32_t c)
{
    static constexpr char32_t kRanges[][2] = {{0x80, 0x9F},     {0x61C, 0x61C},   {0x200B, 0x200F},
                                              {0x2028, 0x202E}, {0x2066, 0x206F}, {0xFEFF, 0xFEFF}};
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [c](const auto& range) { return c >= range[0] && c <= range[1]; });
}

// `sequence` must be well formed and of more than one byte.
char32_t CodePoint(std::string_view sequence)
{
    char32_t value = static_cast<unsigned char>(sequence[0]) & (0x7Fu >> sequence.size());
    for (std::size_t i = 1; i < sequence.size(); ++i)
        value = value << 6 | (static_cast<unsigned char>(sequence[i]) & 0x3Fu);
    return value;
}

// Whether this well-formed sequence may be written to a terminal.
bool IsPrintable(std::string_view sequence, bool multiline)
{
    const char first = sequence[0];
    if (IsControl(first)) return multiline && (first == '\n' || first == '\t');
    return sequence.size() == 1 || !IsUnsafe(CodePoint(sequence));
}

void AppendHexRow(std::string& out, std::string_view row, std::uint64_t offset)
{
    char place[20];
    out.append(place,
               static_cast<std::size_t>(std::snprintf(place, sizeof place, "%08llx  ",
                                                      static_cast<unsigned long long>(offset))));
    for (std::size_t i = 0; i < kHexRowBytes; ++i) {
        if (i < row.size())
            AppendHexEscape(out, "", row[i]);
        else
            out += "  ";
        out += ' ';
    }
    out += ' ';
    for (const char c : row) out += c >= 0x20 && c < 0x7F ? c : '.';
    out += '\n';
}

}  // namespace

void AppendReadable(std::string& out, std::string_view utf8)
{
    while (!utf8.empty() && utf8.back() == '\n') utf8.remove_suffix(1);
    for (const char c : utf8) {
        if (c == '\n')
            out += "\n    ";
        else if (IsControl(c) && c != '\t')
            AppendHexEscape(out, "\\x", c);
        else
            out += c;
    }
}

std::string Host::Printable(std::string_view bytes, bool multiline)
{
    std::string out;
    out.reserve(bytes.size());
    while (!bytes.empty()) {
        const std::size_t length = SequenceLength(bytes);
        const std::string_view taken = bytes.substr(0, std::max<std::size_t>(length, 1));
        if (length > 0 && IsPrintable(taken, multiline))
            out += taken;
        else
            for (const char c : taken) AppendHexEscape(out, "\\x", c);
        bytes.remove_prefix(taken.size());
    }
    return out;
}

std::string Host::HexDump(std::string_view bytes, std::uint64_t offset)
{
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += kHexRowBytes)
        AppendHexRow(out, bytes.substr(at, kHexRowBytes), offset + at);
    return out;
}

}  // namespace VxaCore
