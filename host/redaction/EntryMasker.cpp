// Splits entries into words, and knows from the text around a word what it can be.
#include "redaction/EntryMasker.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "redaction/Escapes.h"

namespace vxa::redaction {

namespace {

// A longer word is masked in pieces, each like a name, because an address could be cut; a longer
// run of spaces is taken in pieces, too.
constexpr std::size_t kLongestWord = 65536;
// How many bytes after a word can decide about it.
constexpr std::size_t kLookahead = 256;
constexpr std::size_t kMostFrames = 64;
constexpr std::size_t kLongestKey = 32;

std::string_view SkipBlanks(std::string_view text)
{
    return text.substr(std::min(text.find_first_not_of(" \n\r\t"), text.size()));
}

// Removes the character, with white space around it; returns whether it was there.
bool Take(std::string_view& text, char c)
{
    text = SkipBlanks(text);
    if (text.empty() || text[0] != c) return false;
    text = SkipBlanks(text.substr(1));
    return true;
}

bool Take(std::string_view& text, std::string_view word)
{
    if (text.substr(0, word.size()) != word) return false;
    text.remove_prefix(word.size());
    return true;
}

bool IsHexadecimal(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return HexValue(c) >= 0; });
}

bool IsSha256(std::string_view text)
{
    return text.size() == 64 && IsHexadecimal(text);
}

// An abbreviation of a time zone, such as CET or +03.
bool IsZone(std::string_view text)
{
    return text.size() <= 6 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '-';
           });
}

void AppendUtf8(std::string& out, std::uint32_t code)
{
    const auto tail = [&](unsigned shift) {
        out += static_cast<char>(0x80 | (code >> shift & 0x3f));
    };
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xc0 | code >> 6);
        tail(0);
    } else if (code < 0x10000) {
        out += static_cast<char>(0xe0 | code >> 12);
        tail(6);
        tail(0);
    } else {
        out += static_cast<char>(0xf0 | code >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

// Returns the code unit of "\uXXXX" at the start of the text; -1 if there is none.
long ReadCodeUnit(std::string_view text)
{
    if (text.size() < 6 || text[0] != '\\' || text[1] != 'u') return -1;
    long code = 0;
    for (const char c : text.substr(2, 4)) {
        if (HexValue(c) < 0) return -1;
        code = code << 4 | HexValue(c);
    }
    return code;
}

// Decodes the escape that the text begins with and returns its size.
std::size_t DecodeEscape(std::string& decoded, std::string_view text)
{
    constexpr std::string_view kLetters = "bfnrt", kControls = "\b\f\n\r\t";
    const long first = ReadCodeUnit(text);
    if (first >= 0xd800 && first < 0xdc00) {
        const long second = ReadCodeUnit(text.substr(6));
        if (second >= 0xdc00 && second < 0xe000) {
            AppendUtf8(decoded, static_cast<std::uint32_t>(0x10000 + ((first - 0xd800) << 10) +
                                                           (second - 0xdc00)));
            return 12;
        }
    }
    if (first >= 0) {
        AppendUtf8(decoded, static_cast<std::uint32_t>(first));
        return 6;
    }
    if (text.size() < 2) {
        decoded += '\\';
        return 1;
    }
    const std::size_t letter = kLetters.find(text[1]);
    decoded += letter == kLetters.npos ? text[1] : kControls[letter];
    return 2;
}

void AppendJson(std::string& out, std::string_view text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && c != '"' && c != '\\')
            out += c;
        else
            AppendNumber(out += "\\u", byte, 16, 4);
    }
}

struct Label {
    std::string_view key;
    const char* label;
};

// The members of nft's objects and statements whose strings are names.
constexpr Label kRuleNames[] = {
    {"table", "table"},     {"chain", "chain"},    {"target", "chain"},       {"dev", "if"},
    {"devices", "if"},      {"set", "set"},        {"counter", "counter"},    {"quota", "quota"},
    {"limit", "limit"},     {"synproxy", "name"},  {"secmark", "name"},       {"ct helper", "name"},
    {"ct timeout", "name"}, {"flowtable", "name"}, {"ct expectation", "name"}};

// Returns null for members whose strings are not names.
const char* FindLabel(std::string_view key)
{
    const auto* const found = std::find_if(std::begin(kRuleNames), std::end(kRuleNames),
                                           [&](const Label& each) { return each.key == key; });
    return found == std::end(kRuleNames) ? nullptr : found->label;
}

// The protocols and areas of the driver's statistics; see docs/diagnostic-texts.md.
bool IsCounterArea(std::string_view area)
{
    constexpr std::string_view kAreas[] = {
        "Ip",     "Icmp",     "IcmpMsg", "Tcp",       "Udp",     "UdpLite",  "IpExt",
        "TcpExt", "MPTcpExt", "Ip6",     "Icmp6",     "Udp6",    "UdpLite6", "sockets",
        "TCP",    "TCP6",     "UDP",     "UDP6",      "UDPLITE", "UDPLITE6", "RAW",
        "RAW6",   "FRAG",     "FRAG6",   "conntrack", "rules",   "scan",     "softnet"};
    return std::find(std::begin(kAreas), std::end(kAreas), area) != std::end(kAreas);
}

bool IsIdentifier(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        const char lower = static_cast<char>(c | 0x20);
        return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// A counter of /proc/net/snmp6: the protocol, then a word that begins with a capital.
bool IsIpv6Counter(std::string_view name)
{
    for (const std::string_view protocol : {"UdpLite6", "Icmp6", "Udp6", "Ip6"}) {
        const std::string_view rest = name.substr(std::min(protocol.size(), name.size()));
        if (name.substr(0, protocol.size()) == protocol && !rest.empty())
            return rest[0] >= 'A' && rest[0] <= 'Z' && IsIdentifier(rest);
    }
    return false;
}

}  // namespace

EntryMasker::EntryMasker(Pseudonyms& pseudonyms, Format format)
    : m_pseudonyms(pseudonyms), m_words(pseudonyms), m_format(format)
{
}

void EntryMasker::Append(std::string& out, std::string_view bytes, bool is_last)
{
    m_text += bytes;
    m_isLast = is_last;
    while (m_at < m_text.size() && Step(out)) {
    }
    m_text.erase(0, m_at);
    m_at = 0;
}

// Returns false if the next bytes are needed first.
bool EntryMasker::Step(std::string& out)
{
    if (!m_isLast && m_text.size() - m_at < kLookahead) return false;
    const char c = m_text[m_at];
    if (c == ' ') return TakeSpaces(out);
    if (IsWordAt(m_at)) return TakeWord(out);
    TakeSeparator(out);
    return true;
}

// In JSON, a colon outside strings is punctuation, and a backslash within them begins an escape.
bool EntryMasker::IsWordAt(std::size_t at) const
{
    const char c = m_text[at];
    return BeginsInWord(Rest(at)) && (c != ':' || !IsJson() || m_inString);
}

// ---- separators -------------------------------------------------------------------------

bool EntryMasker::TakeSpaces(std::string& out)
{
    const std::size_t end = std::min(m_text.find_first_not_of(' ', m_at), m_text.size());
    const std::size_t size = end - m_at;
    if (end == m_text.size() && !m_isLast && size < kLongestWord) return false;
    const auto wanted = static_cast<std::ptrdiff_t>(size) - m_longer;
    const std::size_t spaces =
        size < 2 ? size : static_cast<std::size_t>(std::max<std::ptrdiff_t>(wanted, 2));
    out.append(spaces, ' ');
    m_longer += static_cast<std::ptrdiff_t>(spaces) - static_cast<std::ptrdiff_t>(size);
    if (m_isKey && m_inString) AddToKey(" ");
    m_at = end;
    return true;
}

void EntryMasker::TakeSeparator(std::string& out)
{
    const char c = m_text[m_at];
    if (IsJson())
        TakeJsonSeparator(c);
    else if (m_isLineStart)
        BeginLine();
    m_isLineStart = c == '\n';
    if (c == '\n') {
        m_longer = 0;
        m_lineWords = 0;
        m_firstName = 0;
    }
    out += c;
    ++m_at;
}

// "# set INDEX: FAMILY TABLE NAME", "# skipped FAMILY TABLE NAME: REASON"
void EntryMasker::BeginLine()
{
    if (m_format == Format::kBlacklist) {
        const std::string_view line = Rest(m_at);
        if (line.substr(0, 6) == "# set ") m_firstName = 4;
        if (line.substr(0, 10) == "# skipped ") m_firstName = 3;
    }
}

void EntryMasker::TakeJsonSeparator(char c)
{
    if (c == '\n') m_inString = false;
    if (m_inString) {
        m_inString = c != '"';
        return;
    }
    switch (c) {
        case '"':
            m_inString = true;
            m_isReference = m_at + 1 < m_text.size() && m_text[m_at + 1] == '@';
            m_isKey = !m_frames.empty() && m_frames.back().is_object && !m_isValue;
            if (m_isKey) m_frames.back().key.clear();
            break;
        case ':':
            m_isValue = true;
            if (Key() == "base") BeginRaw();
            break;
        case ',':
            m_isValue = false;
            break;
        case '{':
        case '[':
            PushFrame(c == '{');
            break;
        case '}':
        case ']':
            PopFrame();
            break;
        default:
            break;
    }
}

// The elements of an array are values of the array's key.
void EntryMasker::PushFrame(bool is_object)
{
    m_isValue = false;
    if (m_frames.size() == kMostFrames)
        ++m_deeper;
    else
        m_frames.push_back({is_object, is_object ? std::string() : std::string(Key())});
}

void EntryMasker::PopFrame()
{
    if (m_deeper > 0)
        --m_deeper;
    else if (!m_frames.empty())
        m_frames.pop_back();
    if (m_frames.size() < m_rawFrames) m_rawFrames = 0;
}

// A statement is an element of a rule's "expr".
void EntryMasker::BeginRaw()
{
    const auto is_expr = [](const Frame& frame) { return !frame.is_object && frame.key == "expr"; };
    const auto found = std::find_if(m_frames.begin(), m_frames.end(), is_expr);
    m_rawBits = 0;
    m_rawFrames =
        found == m_frames.end() ? 1 : static_cast<std::size_t>(found - m_frames.begin()) + 2;
}

std::string_view EntryMasker::Key(std::size_t above) const
{
    return above < m_frames.size() ? std::string_view(m_frames[m_frames.size() - 1 - above].key)
                                   : std::string_view();
}

void EntryMasker::AddToKey(std::string_view text)
{
    std::string& key = m_frames.back().key;
    if (key.size() < kLongestKey) key += text.substr(0, kLongestKey);
}

// ---- words ------------------------------------------------------------------------------

// Decodes escapes in JSON strings. An escape that is no part of a word ends it.
EntryMasker::Word EntryMasker::ReadWord() const
{
    Word word;
    const bool has_escapes = IsJson() && m_inString;
    std::size_t at = m_at;
    while (at < m_text.size() && at - m_at < kLongestWord && IsWordAt(at)) {
        if (!has_escapes || m_text[at] != '\\') {
            ++at;
            continue;
        }
        std::string decoded;
        const std::size_t size = DecodeEscape(decoded, Rest(at));
        if (!BeginsInWord(decoded)) break;
        word.decoded.append(m_text, word.copied + m_at, at - m_at - word.copied);
        word.decoded += decoded;
        at += size;
        word.copied = at - m_at;
        word.is_escaped = true;
    }
    word.size = at - m_at;
    if (word.is_escaped) word.decoded.append(m_text, m_at + word.copied, word.size - word.copied);
    return word;
}

bool EntryMasker::TakeWord(std::string& out)
{
    const Word word = ReadWord();
    if (!m_isLast && m_at + word.size + kLookahead > m_text.size()) return false;
    if (word.size == 0) {
        std::string decoded;
        const std::size_t size = DecodeEscape(decoded, Rest(m_at));
        out.append(m_text, m_at, size);
        m_at += size;
        return true;
    }
    const std::string_view text =
        word.is_escaped ? std::string_view(word.decoded) : Rest(m_at).substr(0, word.size);
    ++m_lineWords;
    std::string& masked = m_masked;
    masked.clear();
    const std::size_t end = m_at + word.size;
    const bool is_cut = word.size >= kLongestWord && end < m_text.size() && IsWordAt(end);
    if (std::exchange(m_wasCut, is_cut) || is_cut)
        m_pseudonyms.AppendName(masked, text, "name");
    else
        AppendWord(masked, text, Rest(m_at + word.size));
    if (m_isKey && m_inString) AddToKey(text);
    const std::size_t before = out.size();
    if (word.is_escaped)
        AppendJson(out, masked);
    else
        out += masked;
    m_longer +=
        static_cast<std::ptrdiff_t>(out.size() - before) - static_cast<std::ptrdiff_t>(word.size);
    m_isLineStart = false;
    m_at += word.size;
    return true;
}

void EntryMasker::AppendWord(std::string& out, std::string_view word, std::string_view rest)
{
    if (!m_rangeEnd.empty()) {
        out += m_rangeEnd;
        m_rangeEnd.clear();
    } else if (IsJson() ? AppendJsonWord(out, word, rest)
                        : m_format == Format::kStatistics && m_isLineStart &&
                              AppendCounterName(out, word)) {
        return;
    } else {
        m_words.Append(out, word, IsJson() ? PlaceInJson() : PlaceInLine());
    }
}

// The name of a counter. Those of interfaces begin with the interface's name.
bool EntryMasker::AppendCounterName(std::string& out, std::string_view name)
{
    const std::size_t dot = name.rfind('.');
    if (dot == name.npos) {
        if (IsIpv6Counter(name)) out += name;
        return IsIpv6Counter(name);
    }
    const std::string_view area = name.substr(0, dot), item = name.substr(dot + 1);
    const bool is_interface =
        item == "ifindex" || item.substr(0, 3) == "rx_" || item.substr(0, 3) == "tx_";
    if (!IsIdentifier(item) || (!is_interface && !IsCounterArea(area))) return false;
    if (is_interface && area != "lo")
        m_words.Append(out, area, {"if", true});
    else
        out += area;
    (out += '.') += item;
    return true;
}

Place EntryMasker::PlaceInLine() const
{
    if (m_firstName == 0) return {};
    if (m_lineWords == m_firstName) return {"table", true};
    return m_lineWords == m_firstName + 1 ? Place{"set", true} : Place{};
}

// ---- words of JSON ----------------------------------------------------------------------

Place EntryMasker::PlaceInJson() const
{
    if (!m_inString || m_isKey) return {};
    if (m_format == Format::kJson) return {IsHostName() ? "host" : "name"};
    if (m_isReference) return {"set", true};
    const bool is_name = Key() == "name";
    const char* const label = FindLabel(is_name ? Key(1) : Key());
    return {label ? label : "name", label || is_name};
}

bool EntryMasker::IsHostName() const
{
    return Key() == "host" || (Key() == "name" && Key(1) == "host");
}

// What is not masked as text; returns false for everything else.
bool EntryMasker::AppendJsonWord(std::string& out, std::string_view word, std::string_view rest)
{
    const std::string_view key = Key();
    if (m_rawFrames > 0 && !m_inString) {
        if (key == "len") std::from_chars(word.data(), word.data() + word.size(), m_rawBits);
        return key != "len" && key != "offset" && m_words.AppendNumber(out, word, m_rawBits);
    }
    if (!m_inString || m_isKey) return false;
    if (m_format == Format::kRules)
        return key == "addr" ? AppendPrefix(out, word, rest)
                             : key == "range" && AppendRange(out, word, rest);
    if (IsHostName()) m_pseudonyms.ReserveHost(word);
    if (key == "kernel") {
        m_words.AppendRelease(out, word);
        return true;
    }
    const bool is_public = (Key(1) == "build_ids" && IsHexadecimal(word)) ||
                           (key == "policy_sha256" && IsSha256(word)) ||
                           (key == "time_zone" && IsZone(word));
    if (is_public) out += word;
    return is_public;
}

// "addr": "10.1.0.0", "len": 16
bool EntryMasker::AppendPrefix(std::string& out, std::string_view word, std::string_view rest)
{
    unsigned length = 0;
    if (!Take(rest, '"') || !Take(rest, ',') || !Take(rest, "\"len\"") || !Take(rest, ':'))
        return false;
    const auto read = std::from_chars(rest.data(), rest.data() + rest.size(), length);
    return read.ec == std::errc() && m_words.AppendNetwork(out, word, length);
}

// "range": ["10.0.0.3", "10.0.0.9"]
bool EntryMasker::AppendRange(std::string& out, std::string_view word, std::string_view rest)
{
    if (!Take(rest, '"') || !Take(rest, ',') || !Take(rest, '"')) return false;
    return m_words.AppendRange(out, m_rangeEnd, word, rest.substr(0, rest.find('"')));
}

}  // namespace vxa::redaction
