// Collects lines for a text sink and hands them over several at a time: one call of the
// sink costs more than formatting a line.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "dumps/Address.h"
#include "api/Message.h"
#include "vxi/records.h"

namespace vxi {

class Lines {
public:
    explicit Lines(tb_dump_s* sink) : sink_(sink) {}

    Lines& text(std::string_view words)
    {
        const std::size_t length = std::min(words.size(), room());
        std::memcpy(buffer_ + used_, words.data(), length);
        used_ += length;
        return *this;
    }

    // For what the kernel or a user named.
    Lines& escaped(std::string_view words, bool blank)
    {
        for (const char byte : words) {
            text(EscapedByte(byte, blank));
        }
        return *this;
    }

    Lines& number(std::uint64_t value)
    {
        char digits[20];
        const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return text({digits, static_cast<std::size_t>(end - digits)});
    }

    Lines& address(const std::uint8_t (&bytes)[16], std::uint8_t family)
    {
        char words[address_text_size];
        const char* const end = put_address(words, bytes, family);
        return text({words, static_cast<std::size_t>(end - words)});
    }

    void end_line()
    {
        buffer_[used_++] = '\n';
        if (used_ > longest_call - longest_line) {
            flush();
        }
        line_ = used_;
    }

    // Not a destructor's work: the sink may throw.
    void flush();

private:
    static constexpr std::size_t longest_call = 1023;  // what a sink takes at once
    static constexpr std::size_t longest_line = 400;   // longer ones are cut

    std::size_t room() const { return longest_line - 1 - (used_ - line_); }

    tb_dump_s* sink_;
    std::size_t used_ = 0;
    std::size_t line_ = 0;  // where the present line begins
    char buffer_[longest_call + 1];
};

}  // namespace vxi
