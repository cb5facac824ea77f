// Pseudonyms and their file.
#include "redaction/Pseudonyms.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "redaction/Escapes.h"
#include "redaction/Vocabulary.h"

namespace vxa::redaction {

namespace {

constexpr std::string_view kHeading = "# vxa redaction map 1";
constexpr std::string_view kBlacklist = "blacklist";

// Memory is bounded: names beyond these limits get a hash for a number, and are not listed.
constexpr std::size_t kLongestName = 256;
constexpr std::size_t kMostNameBytes = std::size_t{64} << 20;
constexpr std::size_t kNameOverhead = 128;

constexpr std::size_t kMostPinned = 200000;

// How many addresses are collected until duplicates are removed.
constexpr std::size_t kCollected = 65536;

std::string_view TakeWord(std::string_view& line)
{
    const std::size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

Key ReadKey(std::string_view word)
{
    Key key = {};
    if (word.size() != 32) throw std::runtime_error("the key must have 32 hexadecimal digits");
    for (std::size_t i = 0; i < 2; ++i) {
        const char* const begin = word.data() + 16 * i;
        if (std::from_chars(begin, begin + 16, key[i], 16).ptr != begin + 16)
            throw std::runtime_error("the key must have 32 hexadecimal digits");
    }
    return key;
}

bool IsPseudonym(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

// The number that a pseudonym ends in; 0 if it has none.
std::size_t NumberOf(std::string_view pseudonym)
{
    std::size_t number = 0;
    const std::size_t digits = pseudonym.find_last_not_of("0123456789") + 1;
    std::from_chars(pseudonym.data() + digits, pseudonym.data() + pseudonym.size(), number);
    return number;
}

// The first two lines of a map are its heading and its key.
Key KeyOf(std::string_view text)
{
    std::string_view first = text.substr(0, text.find('\n'));
    if (first.substr(0, kHeading.size()) != kHeading)
        throw std::runtime_error("not a redaction map");
    text.remove_prefix(std::min(first.size() + 1, text.size()));
    std::string_view line = text.substr(0, text.find('\n'));
    if (TakeWord(line) != "key") throw std::runtime_error("line 2: the key is missing");
    return ReadKey(TakeWord(line));
}

void AppendNetwork(std::string& out, const Address& address, unsigned length)
{
    constexpr Bits kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    Spelling spelling;
    spelling.dotted =
        address.family == Family::kIpv6 && CommonPrefix(address.bits, kMapped, 96) == 96;
    AppendAddress(out, address, spelling);
    if (length < address.Width()) (out += '/') += std::to_string(length);
}

}  // namespace

bool Pseudonyms::Network::operator<(const Network& other) const
{
    return address == other.address ? length < other.length : address < other.address;
}

bool Pseudonyms::Network::operator==(const Network& other) const
{
    return address == other.address && length == other.length;
}

Pseudonyms::Pseudonyms(const Key& key, bool keeps_addresses)
    : m_key(key), m_addresses(key), m_keepsAddresses(keeps_addresses), m_names(0, Hash{key})
{
}

Pseudonyms::Pseudonyms(bool keeps_addresses) : Pseudonyms(RandomKey(), keeps_addresses) {}

Pseudonyms::Pseudonyms(std::string_view text) : Pseudonyms(KeyOf(text), true)
{
    m_canPin = false;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (number <= 2 || line.empty() || line[0] == '#') continue;
        try {
            ReadLine(line);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("line " + std::to_string(number) + ": " + error.what());
        }
    }
}

// The key gives the pseudonyms of addresses; those of names are taken from the line.
void Pseudonyms::ReadLine(std::string_view line)
{
    const std::string_view kind = TakeWord(line);
    const std::string_view original = TakeWord(line);
    const std::string_view masked = TakeWord(line);
    if (masked.empty() || !line.empty()) throw std::runtime_error("expected KIND ORIGINAL MASKED");
    if (kind == "name") {
        if (!IsPseudonym(masked))
            throw std::runtime_error("the pseudonym is not one of this command");
        m_lastNumber = std::max(m_lastNumber, NumberOf(masked));
        std::string name = Unescape(original);
        m_nameBytes += name.size() + kNameOverhead;
        if (!m_names.try_emplace(std::move(name), Name{std::string(masked)}).second)
            throw std::runtime_error("the name is listed twice");
        return;
    }
    const SpelledAddress read = ReadAddress(original);
    unsigned length = read.address.Width();
    std::string_view rest = original.substr(read.spelling.length);
    if (read && !rest.empty() && rest[0] == '/') {
        const char* const end = rest.data() + rest.size();
        if (std::from_chars(rest.data() + 1, end, length).ptr == end) rest = {};
    }
    if ((kind != "address" && kind != "network") || !read || !rest.empty() ||
        length > read.address.Width())
        throw std::runtime_error("neither an address nor a name");
    if (kind == "network") m_addresses.Pin(read.address, length);
    Keep({read.address, length});
}

// ---- addresses --------------------------------------------------------------------------

void Pseudonyms::Keep(const Network& network)
{
    if (!m_keepsAddresses) return;
    m_kept.push_back(network);
    if (m_kept.size() - m_compacted >= std::max(kCollected, m_compacted)) Compact();
}

void Pseudonyms::Compact()
{
    std::sort(m_kept.begin(), m_kept.end());
    m_kept.erase(std::unique(m_kept.begin(), m_kept.end()), m_kept.end());
    m_compacted = m_kept.size();
}

Address Pseudonyms::Mask(const Address& address)
{
    if (m_collects) return address;
    Keep({address, address.Width()});
    return m_addresses.Mask(address);
}

Address Pseudonyms::MaskNetwork(const Address& network, unsigned length)
{
    if (m_collects) {
        if (m_pinned < kMostPinned && m_addresses.Pin(network, length)) ++m_pinned;
        return network;
    }
    Keep({network, length});
    return FirstOfBlock(m_addresses.Mask(network), length);
}

// ---- names ------------------------------------------------------------------------------

// The numbers of different labels differ, so that no two pseudonyms are equal.
std::string Pseudonyms::NewName(std::string_view name, const char* label)
{
    const bool is_blacklist = name.substr(0, kBlacklist.size()) == kBlacklist;
    std::string masked = is_blacklist ? std::string(kBlacklist) + "-" : std::string();
    masked += label;
    if (name.size() > kLongestName || m_nameBytes > kMostNameBytes) {
        ++m_unlisted;
        AppendNumber(masked += '-', SipHash(m_key, name), 16, 16);
        return masked;
    }
    masked += std::to_string(++m_lastNumber);
    m_nameBytes += name.size() + kNameOverhead;
    m_names.try_emplace(std::string(name), Name{masked});
    return masked;
}

std::string Pseudonyms::MaskName(std::string_view name, const char* label)
{
    const auto found = m_names.find(std::string(name));
    return found != m_names.end() ? found->second.masked : NewName(name, label);
}

void Pseudonyms::AppendName(std::string& out, std::string_view name, const char* label)
{
    if (!m_collects) out += MaskName(name, label);
}

void Pseudonyms::ReserveHost(std::string_view name)
{
    const bool has_domain = name.find('.') != name.npos;
    while (!name.empty()) {
        const std::string part(name.substr(0, name.find('.')));
        name.remove_prefix(std::min(part.size() + 1, name.size()));
        const bool is_top = has_domain && name.empty();
        if (part.empty() || part == "localhost" || (is_top && IsPublicWord(part))) continue;
        (void)MaskName(part, "host");
        const auto found = m_names.find(part);
        if (found != m_names.end()) found->second.is_reserved = true;
    }
}

bool Pseudonyms::IsReserved(std::string_view name) const
{
    const auto found = m_names.find(std::string(name));
    return found != m_names.end() && found->second.is_reserved;
}

// ---- the file ---------------------------------------------------------------------------

std::string Pseudonyms::Head() const
{
    std::string head(kHeading);
    head += ": who has it can undo the masking. KIND ORIGINAL MASKED\nkey ";
    for (const std::uint64_t half : m_key) AppendNumber(head, half, 16, 16);
    head += '\n';
    if (m_unlisted > 0)
        head += "# names without a line, for lack of room: " + std::to_string(m_unlisted) + "\n";
    return head;
}

void Pseudonyms::Write(const std::function<void(std::string_view piece)>& write)
{
    constexpr std::size_t kPiece = 65536;
    Compact();
    std::string text = Head();
    const auto end_line = [&] {
        text += '\n';
        if (text.size() < kPiece) return;
        write(text);
        text.clear();
    };
    for (const Network& each : m_kept) {
        const Address masked = m_addresses.Mask(each.address);
        text += m_addresses.IsPinned(each.address, each.length) ? "network " : "address ";
        AppendNetwork(text, each.address, each.length);
        AppendNetwork(text += ' ', FirstOfBlock(masked, each.length), each.length);
        end_line();
    }
    std::vector<const std::pair<const std::string, Name>*> names;
    for (const auto& each : m_names) names.push_back(&each);
    std::sort(names.begin(), names.end(), [](auto a, auto b) { return a->first < b->first; });
    for (const auto* each : names) {
        AppendEscaped(text += "name ", each->first);
        (text += ' ') += each->second.masked;
        end_line();
    }
    write(text);
}

}  // namespace vxa::redaction
