// Masks one word of text: characters without white space or other separators between them.
#pragma once

#include <string>
#include <string_view>

#include "redaction/Pseudonyms.h"

namespace vxa::redaction {

// What the place of a word says about it.
struct Place {
    const char* label = "name";  // of the pseudonyms of names found there
    bool is_name = false;        // whatever is there is a name; otherwise public words stay
};

// Whether the text begins with what can be part of a word: a character, or one that is written as
// "%41".
bool BeginsInWord(std::string_view text);

class WordMasker {
public:
    explicit WordMasker(Pseudonyms& pseudonyms) : m_pseudonyms(pseudonyms) {}

    // Appends the word with its addresses, names and whatever could be one replaced. Kept are
    // numbers, times, sizes and public words; networks ("10.1.0.0/16") stay networks. The ends
    // of a range ("10.0.0.3-10.0.0.9") stay in order. A name of a reverse zone ("8.b.d.0.ip6.arpa")
    // is masked as a whole.
    void Append(std::string& out, std::string_view word, Place place);

    // Appends the release of a kernel ("6.1.0-18-amd64"). Its number stays; what follows it stays
    // if all of it is numbers and public words, because the builder of a kernel can add any name.
    void AppendRelease(std::string& out, std::string_view release);

    // Appends the first address of the network whose prefix has `length` bits; false if the word
    // is not the address of such a network.
    bool AppendNetwork(std::string& out, std::string_view word, unsigned length);

    // Appends the masked ends of a range to a string each; false if the words are no addresses
    // of one family.
    bool AppendRange(std::string& first, std::string& last, std::string_view word_first,
                     std::string_view word_last);

    // Appends a number that can be the bytes of an address, masked as the IPv4 or MAC address
    // that it would be; false if the word is not such a number. If it has 17 to 31 bits, it is
    // masked as the network that it would be.
    bool AppendNumber(std::string& out, std::string_view word, unsigned bits);

private:
    struct Ends {
        Address first, last;
    };

    Ends MaskEnds(const Address& first, const Address& last);
    std::size_t AppendRangeAt(std::string& out, const SpelledAddress& first, std::string_view rest);
    std::size_t AppendAddressAt(std::string& out, std::string_view word, std::size_t at);
    std::size_t AppendPartAt(std::string& out, std::string_view word, std::size_t at, Place place);
    void AppendPart(std::string& out, std::string_view part, Place place);
    bool IsPublicSuffix(std::string_view suffix) const;

    Pseudonyms& m_pseudonyms;
};

}  // namespace vxa::redaction
