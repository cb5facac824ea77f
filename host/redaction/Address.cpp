// Reads and writes addresses.
#include "redaction/Address.h"

#include <algorithm>

#include "redaction/Escapes.h"

namespace vxa::redaction {

namespace {

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::size_t CountHexDigits(std::string_view text)
{
    std::size_t count = 0;
    while (count < text.size() && HexValue(text[count]) >= 0) ++count;
    return count;
}

unsigned HexNumber(std::string_view digits)
{
    unsigned value = 0;
    for (const char c : digits) value = value << 4 | static_cast<unsigned>(HexValue(c));
    return value;
}

bool HasUpper(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'F'; });
}

char At(std::string_view text, std::size_t index)
{
    return index < text.size() ? text[index] : '\0';
}

// Reads the groups of an IPv6 address.
class Ipv6Reader {
public:
    explicit Ipv6Reader(std::string_view text) : m_text(text) {}

    SpelledAddress Read()
    {
        if (At(m_text, 0) == ':' && At(m_text, 1) == ':') TakeGap();
        while (m_count < kGroups && TakeGroup() && TakeSeparator()) {
        }
        if (m_gap < 0 ? m_count < kGroups : m_count >= kGroups) return {};
        return Result();
    }

private:
    static constexpr int kGroups = 8;

    void TakeGap()
    {
        m_gap = m_count;
        m_at += 2;
        m_end = m_at;
    }

    bool TakeGroup()
    {
        const std::string_view rest = m_text.substr(std::min(m_at, m_text.size()));
        if (m_count <= kGroups - 2 && TakeQuad(rest)) return false;
        const std::size_t digits = CountHexDigits(rest);
        if (digits == 0 || digits > 4) return false;
        m_padded = m_padded && digits == 4;
        m_groups[m_count++] = static_cast<std::uint16_t>(HexNumber(rest.substr(0, digits)));
        m_at += digits;
        m_end = m_at;
        return true;
    }

    // An address in dotted decimal is the last 32 bits.
    bool TakeQuad(std::string_view rest)
    {
        const SpelledAddress quad = ReadIpv4(rest);
        if (!quad || (m_gap < 0 && m_count != kGroups - 2)) return false;
        const Bits& bits = quad.address.bits;
        m_groups[m_count++] = static_cast<std::uint16_t>(bits[0] << 8 | bits[1]);
        m_groups[m_count++] = static_cast<std::uint16_t>(bits[2] << 8 | bits[3]);
        m_dotted = true;
        m_end = m_at + quad.spelling.length;
        return true;
    }

    bool TakeSeparator()
    {
        if (At(m_text, m_at) != ':') return false;
        if (At(m_text, m_at + 1) == ':' && m_gap < 0)
            TakeGap();
        else
            ++m_at;
        return true;
    }

    SpelledAddress Result() const
    {
        SpelledAddress result = {{Family::kIpv6, {}}, {}};
        const int missing = kGroups - m_count;
        for (int i = 0; i < m_count; ++i) {
            const auto group = static_cast<std::size_t>(m_gap >= 0 && i >= m_gap ? i + missing : i);
            result.address.bits[2 * group] = static_cast<std::uint8_t>(m_groups[i] >> 8);
            result.address.bits[2 * group + 1] = static_cast<std::uint8_t>(m_groups[i]);
        }
        Spelling& spelling = result.spelling;
        spelling.length = m_end;
        spelling.dotted = m_dotted;
        spelling.expanded = m_gap < 0;
        spelling.padded = m_padded;
        spelling.upper = HasUpper(m_text.substr(0, m_end));
        return result;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    std::size_t m_end = 0;  // of what belongs to the address
    int m_count = 0;
    int m_gap = -1;  // the group that "::" is in front of
    bool m_dotted = false;
    bool m_padded = true;
    std::uint16_t m_groups[kGroups] = {};
};

// Returns the length of `groups` groups of `digits` hexadecimal digits with one of the separators
// between them; 0 if the text does not begin with that, or its last group is longer.
std::size_t MatchGroups(std::string_view text, std::size_t groups, std::size_t digits,
                        std::string_view separators)
{
    const std::size_t length = groups * (digits + 1) - 1;
    const char separator = At(text, digits);
    if (text.size() < length || separators.find(separator) == separators.npos ||
        HexValue(At(text, length)) >= 0)
        return 0;
    for (std::size_t at = 0; at < length; at += digits + 1)
        if (CountHexDigits(text.substr(at, digits)) != digits ||
            (at + digits < length && text[at + digits] != separator))
            return 0;
    return length;
}

void AppendQuad(std::string& out, const std::uint8_t* bytes)
{
    for (int i = 0; i < 4; ++i) {
        if (i > 0) out += '.';
        AppendNumber(out, bytes[i], 10);
    }
}

unsigned GroupAt(const Bits& bits, std::size_t group)
{
    return static_cast<unsigned>(bits[2 * group] << 8 | bits[2 * group + 1]);
}

struct ZeroRun {
    std::size_t begin;
    std::size_t end;
};

// Returns the first of the longest runs of at least two zero groups; an empty one at `groups` if
// there is none.
ZeroRun LongestZeros(const Bits& bits, std::size_t groups)
{
    ZeroRun best = {groups, groups};
    for (std::size_t begin = 0; begin < groups; ++begin) {
        std::size_t end = begin;
        while (end < groups && GroupAt(bits, end) == 0) ++end;
        if (end - begin >= 2 && end - begin > best.end - best.begin) best = {begin, end};
    }
    return best;
}

void AppendIpv6(std::string& out, const Bits& bits, const Spelling& spelling)
{
    const std::size_t groups = spelling.dotted ? 6 : 8;
    const ZeroRun zeros = spelling.expanded ? ZeroRun{groups, groups} : LongestZeros(bits, groups);
    for (std::size_t group = 0; group < groups; ++group) {
        if (group == zeros.begin) {
            out += "::";
            group = zeros.end - 1;
            continue;
        }
        if (group > 0 && group != zeros.end) out += ':';
        AppendNumber(out, GroupAt(bits, group), 16, spelling.padded && spelling.expanded ? 4 : 1);
    }
    if (!spelling.dotted) return;
    if (zeros.end != groups || zeros.begin == groups) out += ':';
    AppendQuad(out, bits.data() + 12);
}

void AppendMac(std::string& out, const Address& address, const Spelling& spelling)
{
    const unsigned step = spelling.separator == '.' ? 2 : 1;
    for (unsigned i = 0; i < address.Width() / 8; ++i) {
        if (i > 0 && i % step == 0) out += spelling.separator;
        AppendNumber(out, address.bits[i], 16, 2);
    }
}

SpelledAddress MacOf(std::string_view text, Family family, std::size_t length)
{
    SpelledAddress result = {{family, {}}, {}};
    if (length == 0) return result;
    std::size_t digits = 0;
    for (const char c : text.substr(0, length)) {
        if (HexValue(c) < 0) {
            result.spelling.separator = c;
            continue;
        }
        std::uint8_t& byte = result.address.bits[digits++ / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | HexValue(c));
    }
    result.spelling.length = length;
    result.spelling.upper = HasUpper(text.substr(0, length));
    return result;
}

Address FillAfter(Address address, unsigned length, bool set)
{
    for (unsigned i = length; i < address.Width(); ++i) {
        const auto mask = static_cast<std::uint8_t>(0x80 >> i % 8);
        std::uint8_t& byte = address.bits[i / 8];
        byte = static_cast<std::uint8_t>(set ? byte | mask : byte & ~mask);
    }
    return address;
}

}  // namespace

SpelledAddress ReadIpv4(std::string_view text)
{
    SpelledAddress result = {{Family::kIpv4, {}}, {}};
    std::size_t at = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i > 0 && At(text, at++) != '.') return {};
        unsigned value = 0;
        std::size_t digits = 0;
        while (digits < 4 && IsDigit(At(text, at + digits)))
            value = value * 10 + static_cast<unsigned>(text[at + digits++] - '0');
        if (digits == 0 || digits > 3 || value > 255) return {};
        result.address.bits[i] = static_cast<std::uint8_t>(value);
        at += digits;
    }
    result.spelling.length = at;
    return result;
}

SpelledAddress ReadIpv6(std::string_view text)
{
    return Ipv6Reader(text).Read();
}

SpelledAddress ReadMac(std::string_view text)
{
    if (const std::size_t length = MatchGroups(text, 8, 2, ":-"))
        return MacOf(text, Family::kEui64, length);
    const std::size_t length = MatchGroups(text, 6, 2, ":-");
    return MacOf(text, Family::kMac, length > 0 ? length : MatchGroups(text, 3, 4, "."));
}

SpelledAddress ReadAddress(std::string_view text)
{
    if (const SpelledAddress mac = ReadMac(text)) return mac;
    if (const SpelledAddress ipv6 = ReadIpv6(text)) return ipv6;
    return ReadIpv4(text);
}

void AppendAddress(std::string& out, const Address& address, const Spelling& spelling)
{
    const std::size_t begin = out.size();
    if (address.family == Family::kIpv4)
        AppendQuad(out, address.bits.data());
    else if (address.family == Family::kIpv6)
        AppendIpv6(out, address.bits, spelling);
    else
        AppendMac(out, address, spelling);
    if (!spelling.upper) return;
    for (std::size_t i = begin; i < out.size(); ++i)
        if (HexValue(out[i]) >= 10) out[i] = static_cast<char>(out[i] & ~0x20);
}

Address FirstOfBlock(const Address& address, unsigned length)
{
    return FillAfter(address, length, false);
}

Address LastOfBlock(const Address& address, unsigned length)
{
    return FillAfter(address, length, true);
}

}  // namespace vxa::redaction
