// Finds addresses and names in words.
#include "redaction/WordMasker.h"

#include <algorithm>
#include <charconv>

#include "redaction/Escapes.h"
#include "redaction/Vocabulary.h"

namespace vxa::redaction {

namespace {

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Letters, digits, and all bytes that are neither ASCII punctuation nor white space: whatever is
// unknown belongs to a name.
bool IsNameCharacter(char c)
{
    const char lower = static_cast<char>(c | 0x20);
    const auto byte = static_cast<unsigned char>(c);
    return IsDigit(c) || (lower >= 'a' && lower <= 'z') || c == '_' || c == '-' || c == '\\' ||
           byte < ' ' || byte >= 0x7f;
}

// Whether the text begins with a character of a name, or one that is written as "%41".
bool IsInName(std::string_view text)
{
    return IsNameCharacter(text[0]) ||
           (text[0] == '%' && text.size() > 2 && HexValue(text[1]) >= 0 && HexValue(text[2]) >= 0);
}

std::size_t CountDigits(std::string_view text)
{
    const auto* const end = std::find_if_not(text.begin(), text.end(), IsDigit);
    return static_cast<std::size_t>(end - text.begin());
}

// Returns the length of a time like 2026-11-22T05:06:37.123Z that the text begins with, 0 if
// there is none. "d" is a digit.
std::size_t TimeLength(std::string_view text)
{
    constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < kPattern.size()) return 0;
    for (std::size_t i = 0; i < kPattern.size(); ++i)
        if (kPattern[i] == 'd' ? !IsDigit(text[i]) : text[i] != kPattern[i]) return 0;
    std::size_t length = kPattern.size();
    if (text.substr(length, 1) == ".") {
        const std::size_t end = length + 1 + CountDigits(text.substr(length + 1));
        // Otherwise an address may follow.
        if (text.substr(end, 1) != "." && text.substr(end, 1) != ":") length = end;
    }
    if (text.substr(length, 1) == "Z") ++length;
    return length;
}

// "e-05". Without a sign, it could be hexadecimal.
bool IsExponent(std::string_view text)
{
    return text.size() > 2 && (text[0] | 0x20) == 'e' && text[1] == '-' &&
           CountDigits(text.substr(2)) == text.size() - 2;
}

// "1e" of "1e+05".
bool IsMantissa(std::string_view part, std::string_view rest)
{
    return rest.substr(0, 1) == "+" && CountDigits(rest.substr(1)) > 0 && part.size() > 1 &&
           (part.back() | 0x20) == 'e' && CountDigits(part) == part.size() - 1;
}

// Digits with a unit or an exponent.
bool IsNumber(std::string_view part)
{
    constexpr std::string_view kUnits[] = {"s",  "ms", "us", "ns",  "min", "h",   "d",
                                           "kB", "MB", "GB", "KiB", "MiB", "GiB", "x"};
    const std::string_view unit = part.substr(CountDigits(part));
    return std::find(std::begin(kUnits), std::end(kUnits), unit) != std::end(kUnits) ||
           IsExponent(unit);
}

// A negative status in hexadecimal digits: "fffffffb".
bool IsStatus(std::string_view part)
{
    return part.size() == 8 && part.substr(0, 4) == "ffff" &&
           std::all_of(part.begin(), part.end(), [](char c) { return HexValue(c) >= 0; });
}

// Calls the function with each piece between hyphens.
template <typename Function>
void ForEachPiece(std::string_view part, Function function)
{
    for (std::size_t begin = 0; begin <= part.size();) {
        const std::size_t end = std::min(part.find('-', begin), part.size());
        function(part.substr(begin, end - begin));
        begin = end + 1;
    }
}

// Digits and hyphens, but not four numbers as in an address. Versions like 0-18-amd64 begin with
// a number, and have public words.
bool IsVersion(std::string_view part)
{
    if (!IsDigit(part[0])) return false;
    unsigned numbers = 0;
    bool is_public = true;
    ForEachPiece(part, [&](std::string_view piece) {
        const bool is_number = CountDigits(piece) == piece.size();
        numbers += is_number && !piece.empty();
        is_public = is_public && (is_number || IsPublicWord(piece));
    });
    return is_public && numbers < 4;
}

// Returns the length of five or more numbers with dots between them that the text begins with, 0
// if there are none. Which four of them are an address is not known.
std::size_t RowLength(std::string_view text)
{
    std::size_t length = 0, numbers = 0;
    for (std::size_t digits; (digits = CountDigits(text.substr(length))) > 0; ++numbers) {
        length += digits;
        if (text.substr(length, 1) != ".") return numbers >= 4 ? length : 0;
        ++length;
    }
    return numbers > 4 ? length - 1 : 0;
}

// ".arpa", in any case.
bool HasReverseZone(std::string_view word)
{
    constexpr std::string_view kZone = ".arpa";
    for (auto at = word.find('.'); at != word.npos; at = word.find('.', at + 1)) {
        const std::string_view label = word.substr(at, kZone.size());
        if (std::equal(label.begin(), label.end(), kZone.begin(), kZone.end(),
                       [](char c, char zone) { return (c | 0x20) == (zone | 0x20); }))
            return true;
    }
    return false;
}

bool HasNameCharacters(std::string_view part)
{
    return std::any_of(part.begin(), part.end(), [](char c) { return c != '-' && c != '_'; });
}

}  // namespace

bool BeginsInWord(std::string_view text)
{
    const char c = text[0];
    return IsInName(text) ? c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r'
                          : c == '.' || c == ':' || c == '/' || c == '+';
}

// ---- addresses --------------------------------------------------------------------------

namespace {

// Returns the prefix length of "/24", as many characters as it has in `taken`; more than 128 if
// there is none.
unsigned ReadPrefixLength(std::string_view rest, std::size_t& taken)
{
    unsigned length = 0;
    if (rest.substr(0, 1) != "/") return 129;
    const char* const begin = rest.data() + 1;
    const auto read = std::from_chars(begin, rest.data() + rest.size(), length);
    taken = static_cast<std::size_t>(read.ptr - rest.data());
    return read.ec == std::errc() ? length : 129;
}

bool IsNetwork(const Address& address, unsigned length)
{
    return length < address.Width() && FirstOfBlock(address, length) == address;
}

// "::de" of "std::deque".
bool IsScope(const SpelledAddress& read, std::string_view text)
{
    const std::size_t length = read.spelling.length;
    return text[0] == ':' && length < text.size() && IsNameCharacter(text[length]) &&
           text[length] != '-';
}

}  // namespace

bool WordMasker::AppendNetwork(std::string& out, std::string_view word, unsigned length)
{
    const SpelledAddress read = ReadAddress(word);
    if (!read || read.spelling.length != word.size() || !IsNetwork(read.address, length))
        return false;
    AppendAddress(out, m_pseudonyms.MaskNetwork(read.address, length), read.spelling);
    return true;
}

// A range that is a network stays one. Otherwise its ends are masked one by one: the permutation
// does not keep their order, so they may trade places.
WordMasker::Ends WordMasker::MaskEnds(const Address& first, const Address& last)
{
    const unsigned length = CommonPrefix(first.bits, last.bits, first.Width());
    if (IsNetwork(first, length) && LastOfBlock(first, length) == last) {
        const Address masked = m_pseudonyms.MaskNetwork(first, length);
        return {masked, LastOfBlock(masked, length)};
    }
    const Address a = m_pseudonyms.Mask(first), b = m_pseudonyms.Mask(last);
    return a < b ? Ends{a, b} : Ends{b, a};
}

bool WordMasker::AppendRange(std::string& first, std::string& last, std::string_view word_first,
                             std::string_view word_last)
{
    const SpelledAddress a = ReadAddress(word_first), b = ReadAddress(word_last);
    if (!a || !b || a.spelling.length != word_first.size() ||
        b.spelling.length != word_last.size() || a.address.family != b.address.family)
        return false;
    const Ends ends = MaskEnds(a.address, b.address);
    AppendAddress(first, ends.first, a.spelling);
    AppendAddress(last, ends.last, b.spelling);
    return true;
}

// Returns the characters that the word continues a range with after its first address; 0 if it
// does not.
std::size_t WordMasker::AppendRangeAt(std::string& out, const SpelledAddress& first,
                                      std::string_view rest)
{
    if (first.address.family > Family::kIpv6 || rest.substr(0, 1) != "-") return 0;
    const SpelledAddress last = ReadAddress(rest.substr(1));
    if (!last || last.address.family != first.address.family) return 0;
    const Ends ends = MaskEnds(first.address, last.address);
    AppendAddress(out, ends.first, first.spelling);
    AppendAddress(out += '-', ends.last, last.spelling);
    return 1 + last.spelling.length;
}

// Returns the number of characters that belong to the address; 0 if there is none.
std::size_t WordMasker::AppendAddressAt(std::string& out, std::string_view word, std::size_t at)
{
    if (HexValue(word[at]) < 0 && word[at] != ':') return 0;
    const SpelledAddress read = ReadAddress(word.substr(at));
    if (!read || IsScope(read, word.substr(at))) return 0;
    std::size_t taken = read.spelling.length;
    if (const std::size_t more = AppendRangeAt(out, read, word.substr(at + taken)))
        return taken + more;
    std::size_t suffix = 0;
    const unsigned length = ReadPrefixLength(word.substr(at + taken), suffix);
    const bool is_network = read.address.family <= Family::kIpv6 && IsNetwork(read.address, length);
    AppendAddress(out,
                  is_network ? m_pseudonyms.MaskNetwork(read.address, length)
                             : m_pseudonyms.Mask(read.address),
                  read.spelling);
    return taken;
}

bool WordMasker::AppendNumber(std::string& out, std::string_view word, unsigned bits)
{
    std::uint64_t number = 0;
    const auto read = std::from_chars(word.data(), word.data() + word.size(), number);
    if (read.ec != std::errc() || read.ptr != word.data() + word.size()) return false;
    const unsigned shift = bits > 16 && bits < 32 && number >> bits == 0 ? 32 - bits : 0;
    number <<= shift;
    Address address = {number >> 32 == 0   ? Family::kIpv4
                       : number >> 48 == 0 ? Family::kMac
                                           : Family::kEui64,
                       {}};
    const unsigned bytes = address.Width() / 8;
    for (unsigned i = 0; i < bytes; ++i)
        address.bits[i] = static_cast<std::uint8_t>(number >> 8 * (bytes - 1 - i));
    address = shift > 0 ? m_pseudonyms.MaskNetwork(address, bits) : m_pseudonyms.Mask(address);
    number = 0;
    for (unsigned i = 0; i < bytes; ++i) number = number << 8 | address.bits[i];
    out += std::to_string(number >> shift);
    return true;
}

// ---- names ------------------------------------------------------------------------------

namespace {

// Returns where an address begins within a part: right after letters or a hyphen ("ip10.1.2.3",
// "mac-52:54:00:12:34:56"); its end if nowhere.
std::size_t FindAddress(std::string_view word, std::size_t at, std::size_t end)
{
    for (std::size_t begin = at + 1; begin < end; ++begin) {
        const char before = word[begin - 1];
        const bool is_start =
            before == '-' || before == '_' || (IsDigit(word[begin]) && !IsDigit(before));
        if (is_start && ReadAddress(word.substr(begin))) return begin;
    }
    return end;
}

}  // namespace

void WordMasker::AppendPart(std::string& out, std::string_view part, Place place)
{
    if (m_pseudonyms.IsCollecting()) return;
    const std::string name = part.find('\\') == part.npos ? std::string(part) : Unescape(part);
    const bool is_plain = CountDigits(part) == part.size() || !HasNameCharacters(part);
    const bool is_public =
        IsDigit(part[0]) ? IsNumber(part) || IsVersion(part) : IsPublicWord(part) || IsStatus(part);
    const bool is_kept =
        place.is_name ? IsConventionalName(part) : is_public && !m_pseudonyms.IsReserved(name);
    if (is_plain || is_kept)
        out += part;
    else
        m_pseudonyms.AppendName(out, name, place.label);
}

std::size_t WordMasker::AppendPartAt(std::string& out, std::string_view word, std::size_t at,
                                     Place place)
{
    std::size_t end = at;
    while (end < word.size() && IsInName(word.substr(end))) ++end;
    end = FindAddress(word, at, end);
    // Hyphens at the ends belong to the text.
    const std::string_view part = word.substr(at, end - at);
    const std::size_t begin = std::min(part.find_first_not_of('-'), part.size());
    const std::size_t tail = part.find_last_not_of('-') + 1;
    out += part.substr(0, begin);
    if (IsMantissa(part, word.substr(end)))
        out += part;
    else if (begin < tail)
        AppendPart(out, part.substr(begin, tail - begin), place);
    if (begin < part.size()) out += part.substr(tail);
    return end - at;
}

void WordMasker::Append(std::string& out, std::string_view word, Place place)
{
    if (HasReverseZone(word)) {
        m_pseudonyms.AppendName(out, word, place.label);
        return;
    }
    for (std::size_t at = 0; at < word.size();) {
        const std::size_t time = TimeLength(word.substr(at));
        out += word.substr(at, time);
        at += time;
        if (at == word.size()) return;
        std::size_t taken = RowLength(word.substr(at));
        if (taken > 0)
            m_pseudonyms.AppendName(out, word.substr(at, taken), place.label);
        else
            taken = AppendAddressAt(out, word, at);
        if (taken == 0 && IsInName(word.substr(at))) taken = AppendPartAt(out, word, at, place);
        if (taken == 0) out += word[at];
        at += std::max<std::size_t>(taken, 1);
    }
}

// ---- releases ---------------------------------------------------------------------------

// "-18-cloud-amd64", "+deb13-amd64", "-301.fc40.x86_64"; not "-52-54-00-12-34-56".
bool WordMasker::IsPublicSuffix(std::string_view suffix) const
{
    unsigned numbers = 0;
    for (std::size_t at = 0; at < suffix.size();) {
        const std::size_t end = std::min(suffix.find_first_of("-+.", at), suffix.size());
        const std::string_view piece = suffix.substr(at, end - at);
        // "fc40", "el8_10"
        const std::string_view word = piece.substr(0, piece.find_last_not_of("0123456789_") + 1);
        if (!IsPublicWord(piece) && !word.empty() && !IsPublicWord(word)) return false;
        if (m_pseudonyms.IsReserved(piece)) return false;
        numbers += !piece.empty() && word.empty();
        at = end + 1;
    }
    return numbers < 4;
}

void WordMasker::AppendRelease(std::string& out, std::string_view release)
{
    const std::size_t end = std::min(release.find_first_not_of("0123456789."), release.size());
    const std::string_view suffix = release.substr(end);
    const bool has_suffix = !suffix.empty() && (suffix[0] == '-' || suffix[0] == '+');
    if (!has_suffix || release.find('.') > end) return Append(out, release, {});
    Append(out, release.substr(0, end), {});  // 10.1.2.3 is not a release
    if (IsPublicSuffix(suffix))
        out += suffix;
    else
        Append(out, suffix, {});
}

}  // namespace vxa::redaction
