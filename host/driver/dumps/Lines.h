// Collects lines for a text sink and hands them over several at a time: one call of the
// sink costs more than formatting a line.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "api/BoundedText.h"
#include "dumps/Address.h"
#include "vxi/records.h"

namespace vxi {

class Lines {
public:
    explicit Lines(tb_dump_s* sink) : m_sink(sink) {}

    Lines& Text(std::string_view words)
    {
        const std::size_t length = std::min(words.size(), Room());
        std::memcpy(m_buffer + m_used, words.data(), length);
        m_used += length;
        return *this;
    }

    // For what the kernel or a user named.
    Lines& Escaped(std::string_view words, bool blank)
    {
        for (const char byte : words) {
            Text(EscapedByte(byte, blank));
        }
        return *this;
    }

    Lines& Number(std::uint64_t value)
    {
        char digits[20];
        const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return Text({digits, static_cast<std::size_t>(end - digits)});
    }

    Lines& Address(const std::uint8_t (&bytes)[16], std::uint8_t family)
    {
        char words[kAddressTextSize];
        const char* const end = PutAddress(words, bytes, family);
        return Text({words, static_cast<std::size_t>(end - words)});
    }

    void end_line()
    {
        m_buffer[m_used++] = '\n';
        if (m_used > kLongestCall - kLongestLine) {
            Flush();
        }
        m_line = m_used;
    }

    // Not a destructor's work: the sink may throw.
    void Flush();

private:
    static constexpr std::size_t kLongestCall = 1023;  // what a sink takes at once
    static constexpr std::size_t kLongestLine = 400;   // longer ones are cut

    std::size_t Room() const { return kLongestLine - 1 - (m_used - m_line); }

    tb_dump_s* m_sink;
    std::size_t m_used = 0;
    std::size_t m_line = 0;  // where the present line begins
    char m_buffer[kLongestCall + 1];
};

}  // namespace vxi
