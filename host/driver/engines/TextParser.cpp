// The common part of the parsers of VXI_FAULT and VXI_SIM.
#include "engines/TextParser.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <new>

namespace vxi {

ParseError::ParseError(std::size_t position, const std::string& expected)
    : Error(-EINVAL, "cannot be read at character " + std::to_string(position + 1) + ": expected " +
                         expected),
      m_position(static_cast<unsigned>(position))
{
}

void TextParser::ParseList(const std::function<void()>& parse_item)
{
    SkipBlanks();
    while (!AtEnd()) {
        parse_item();
        SkipBlanks();
        if (!AtEnd() && !Take(',')) {
            Fail(m_at, "\",\" or the end");
        }
        SkipBlanks();
    }
}

void TextParser::Require(char c)
{
    if (!Take(c)) {
        Fail(m_at, std::string("\"") + c + "\"");
    }
}

void TextParser::SkipBlanks()
{
    while (!AtEnd() && std::isspace(static_cast<unsigned char>(m_text[m_at]))) {
        ++m_at;
    }
}

std::string_view TextParser::TakeUntil(const char* delimiters)
{
    const std::size_t begin = m_at;
    m_at = std::min(m_text.find_first_of(delimiters, begin), m_text.size());
    return m_text.substr(begin, m_at - begin);
}

int ApplySettings(unsigned* position, const std::function<void()>& apply)
try {
    apply();
    return 0;
} catch (const ParseError& error) {
    if (position) {
        *position = error.Position();
    }
    return error.Status();
} catch (const std::bad_alloc&) {
    return -ENOMEM;
}

}  // namespace vxi
