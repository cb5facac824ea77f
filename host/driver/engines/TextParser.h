// Parses the comma-separated lists in VXI_FAULT and VXI_SIM.
#pragma once

#include <charconv>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "api/Error.h"

namespace vxi {

// The message reads on from what was parsed: "cannot be read at character 6: expected …".
class ParseError : public Error {
public:
    ParseError(std::size_t position, const std::string& expected);

    unsigned Position() const noexcept { return m_position; }  // offset of the bad character

private:
    unsigned m_position;
};

class TextParser {
protected:
    explicit TextParser(std::string_view text) : m_text(text) {}

    // Items are separated by commas; whitespace around them is ignored.
    void ParseList(const std::function<void()>& parse_item);

    [[noreturn]] static void Fail(std::size_t position, const std::string& expected)
    {
        throw ParseError(position, expected);
    }
    bool AtEnd() const { return m_at == m_text.size(); }
    bool Take(char c)
    {
        const bool found = !AtEnd() && m_text[m_at] == c;
        m_at += found;
        return found;
    }
    void Require(char c);
    void SkipBlanks();
    // Everything up to the first of `delimiters`.
    std::string_view TakeUntil(const char* delimiters);
    // Leaves `number` alone when there is none or it is too large for its type.
    template <typename Number>
    bool TakeNumber(Number& number)
    {
        const char* const begin = m_text.data() + m_at;
        const auto [end, error] = std::from_chars(begin, m_text.data() + m_text.size(), number);
        if (error == std::errc()) {
            m_at += static_cast<std::size_t>(end - begin);
        }
        return error == std::errc();
    }

    std::string_view m_text;
    std::size_t m_at = 0;
};

// Applies settings for a C function, which returns what this returns: 0, -ENOMEM, or -EINVAL with
// the position of the bad character in *position, which may be null.
int ApplySettings(unsigned* position, const std::function<void()>& apply);

}  // namespace vxi
