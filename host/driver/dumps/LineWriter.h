// Writes lines to a dump's sink, several per call: calling the sink costs more than formatting a
// line.
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

class LineWriter {
public:
    explicit LineWriter(tb_dump_s* sink) : m_sink(sink) {}

    LineWriter& Text(std::string_view text)
    {
        const std::size_t length = std::min(text.size(), Room());
        std::memcpy(m_buffer + m_used, text.data(), length);
        m_used += length;
        return *this;
    }

    // For names that the kernel or a user chose.
    LineWriter& Escaped(std::string_view text, bool keep_spaces)
    {
        for (const char byte : text) {
            Text(EscapedByte(byte, keep_spaces));
        }
        return *this;
    }

    LineWriter& Number(std::uint64_t value)
    {
        char digits[20];
        const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return Text({digits, static_cast<std::size_t>(end - digits)});
    }

    LineWriter& Address(const std::uint8_t (&address)[16], std::uint8_t family)
    {
        char text[kAddressTextSize];
        const char* const end = WriteAddress(text, address, family);
        return Text({text, static_cast<std::size_t>(end - text)});
    }

    void EndLine()
    {
        m_buffer[m_used++] = '\n';
        if (m_used > kCallMax - kLineMax) {
            Flush();
        }
        m_line = m_used;
    }

    // Not done by a destructor: the sink may throw.
    void Flush();

private:
    static constexpr std::size_t kCallMax = 1023;  // characters that a sink takes per call
    static constexpr std::size_t kLineMax = 400;   // longer lines are cut

    std::size_t Room() const { return kLineMax - 1 - (m_used - m_line); }

    tb_dump_s* m_sink;
    std::size_t m_used = 0;
    std::size_t m_line = 0;  // where the current line begins
    char m_buffer[kCallMax + 1];
};

// What all dumps do: calls write(lines, *record), or does nothing without a sink or a record.
template <typename Record, typename Write>
void Dump(tb_dump_s* sink, const Record* record, Write write)
{
    if (sink && sink->print && record) {
        LineWriter lines(sink);
        write(lines, *record);
        lines.Flush();
    }
}

}  // namespace vxi
