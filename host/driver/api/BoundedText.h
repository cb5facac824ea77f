// ASCII text in buffers of fixed size: written without allocating, because running out of memory
// is one of the things it reports.
#pragma once

#include <cstddef>
#include <string_view>

namespace vxi {

// One byte as text: itself, or \xNN for a backslash and for everything but printable ASCII, so
// that the original can be recovered. A space stays as it is if `keep_space`.
struct EscapedByte {
    char text[4];
    unsigned length;

    EscapedByte(char byte, bool keep_space);
    operator std::string_view() const { return {text, length}; }
};

// Writes into the caller's buffer of `size` > 0 bytes, always NUL-terminated; what does not fit
// is dropped.
class BoundedText {
public:
    BoundedText(char* buffer, std::size_t size) : m_at(buffer), m_last(buffer + size - 1)
    {
        *m_at = '\0';
    }
    template <std::size_t size>
    explicit BoundedText(char (&buffer)[size]) : BoundedText(buffer, size)
    {
    }

    BoundedText& Plain(std::string_view text);
    BoundedText& Escaped(std::string_view text);

private:
    char* m_at;
    char* m_last;
};

}  // namespace vxi
