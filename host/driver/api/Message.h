// Texts that the library keeps and hands out: pure ASCII, always NUL-terminated, and made
// without allocating where not said otherwise, because running out of memory is one of
// the things they tell.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxi {

// One byte as text: itself, or \xNN for everything but printable ASCII and for the
// backslash, so that the escaped form can be read back. `blank` tells whether a space
// stands as it is.
struct EscapedByte {
    char text[4];
    unsigned length;

    EscapedByte(char byte, bool blank);
    operator std::string_view() const { return {text, length}; }
};

// Writes into somebody's buffer of `size` > 0 bytes and stops where it is full.
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

// What a status means, for texts that have nothing better to say.
class StatusWords {
public:
    explicit StatusWords(int status);
    const char* Text() const { return m_words; }

private:
    char m_number[24];
    const char* m_words;
};

// Hands the host a problem for which no call fails; see vxi_set_message_handler.
void Report(const std::string& message);

inline std::string DescribeStatus(int status)
{
    return StatusWords(status).Text();
}

// Why the calling thread's last vxi_open returned null: "engine ENGINE: vxi_open: " and the
// cause, or the cause alone where no engine was reached.
void SetOpenError(std::string_view engine, std::string_view cause);

}  // namespace vxi
