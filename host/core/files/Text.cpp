#include "files/Text.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

#include "vxa_core/files.h"
#include "vxa_core/text.h"

namespace VxaCore {

namespace {

constexpr std::size_t kHexRowBytes = 16;
constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

void AppendCodePoint(std::string& out, char32_t c)
{
    if (c == 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        out += kReplacement;
    } else if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        }
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Length of the well-formed sequence at the start of a non-empty text; 0 when there is
// none. The bounds of the second byte exclude overlong forms and surrogates.
std::size_t SequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return lead == 0 ? 0 : 1;
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) return 0;
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    return length;
}

bool IsControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

void AppendEscaped(std::string& out, const char* prefix, char c)
{
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    ((out += prefix) += kDigits[byte >> 4]) += kDigits[byte & 0xF];
}

// C1 controls; marks, embeddings and isolates of direction with the characters of no
// width beside them, and the deprecated ones that shape what follows; separators of lines.
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

// Whether a terminal may get this well-formed sequence.
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
            AppendEscaped(out, "", row[i]);
        else
            out += "  ";
        out += ' ';
    }
    out += ' ';
    for (const char c : row) out += c >= 0x20 && c < 0x7F ? c : '.';
    out += '\n';
}

}  // namespace

std::string ToUtf8(const wxString& text)
{
    std::string out;
    out.reserve(text.length());
    const wchar_t* wide = text.wc_str();
    for (std::size_t i = 0; i < text.length(); ++i)
        AppendCodePoint(out, static_cast<char32_t>(wide[i]));
    return out;
}

std::string CleanUtf8(const char* bytes)
{
    std::string out;
    std::string_view rest = bytes ? bytes : "";
    while (!rest.empty()) {
        const std::size_t length = SequenceLength(rest);
        if (length == 0)
            out += kReplacement;
        else
            out += rest.substr(0, length);
        rest.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

bool IsPlainUtf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t length = SequenceLength(bytes);
        if (length == 0) return false;
        bytes.remove_prefix(length);
    }
    return true;
}

void AppendJsonString(std::string& out, std::string_view utf8)
{
    out += '"';
    for (const char c : utf8) {
        if (c == '"' || c == '\\')
            (out += '\\') += c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (IsControl(c))
            AppendEscaped(out, "\\u00", c);
        else
            out += c;
    }
    out += '"';
}

void AppendReadable(std::string& out, std::string_view utf8)
{
    while (!utf8.empty() && utf8.back() == '\n') utf8.remove_suffix(1);
    for (const char c : utf8) {
        if (c == '\n')
            out += "\n    ";
        else if (IsControl(c) && c != '\t')
            AppendEscaped(out, "\\x", c);
        else
            out += c;
    }
}

void AppendTime(std::string& out, double time_s)
{
    char digits[40];
    const auto total_us = static_cast<long long>(time_s * 1e6 + 0.5);
    std::snprintf(digits, sizeof digits, "%lld.%06lld", total_us / 1000000, total_us % 1000000);
    out += digits;
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
            for (const char c : taken) AppendEscaped(out, "\\x", c);
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

bool Host::IsDocumentText(std::string_view bytes)
{
    return IsPlainUtf8(bytes);
}

double WallClock()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace VxaCore
