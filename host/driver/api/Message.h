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
    BoundedText(char* buffer, std::size_t size) : at_(buffer), last_(buffer + size - 1)
    {
        *at_ = '\0';
    }
    template <std::size_t size>
    explicit BoundedText(char (&buffer)[size]) : BoundedText(buffer, size)
    {
    }

    BoundedText& plain(std::string_view text);
    BoundedText& escaped(std::string_view text);

private:
    char* at_;
    char* last_;
};

// What a status means, for texts that have nothing better to say.
class StatusWords {
public:
    explicit StatusWords(int status);
    const char* text() const { return words_; }

private:
    char number_[24];
    const char* words_;
};

// Hands the host a problem for which no call fails; see vxi_set_message_handler.
void report(const std::string& message);

inline std::string describe_status(int status)
{
    return StatusWords(status).text();
}

// Why the calling thread's last vxi_open returned null: "engine ENGINE: vxi_open: " and the
// cause, or the cause alone where no engine was reached.
void set_open_error(std::string_view engine, std::string_view cause);

}  // namespace vxi
