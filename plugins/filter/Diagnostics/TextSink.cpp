// Where the driver library prints its text dumps.

#include "TextSink.h"

#include <algorithm>
#include <cstdarg>
#include <new>

namespace Filter::Diagnostics {
namespace {

constexpr std::size_t kPrintBufferSize = 1024;

bool IsAscii(char c)
{
    return static_cast<signed char>(c) >= 0;
}

// Writes Latin-1 as UTF-8, as wxTextOutputStream::WriteString would, but that converts with
// buffers from malloc that it does not check.
void WriteLatin1(wxTextOutputStream* text, std::string_view characters)
{
    // The accessor is const, the stream is not.
    auto& stream = const_cast<wxOutputStream&>(text->GetOutputStream());
    while (!characters.empty()) {
        const auto end = std::find_if_not(characters.begin(), characters.end(), IsAscii);
        const auto length = static_cast<std::size_t>(end - characters.begin());
        stream.Write(characters.data(), length);
        characters.remove_prefix(length);
        if (characters.empty()) return;
        const auto byte = static_cast<unsigned char>(characters[0]);
        const unsigned char utf8[] = {static_cast<unsigned char>(0xc0 | byte >> 6),
                                      static_cast<unsigned char>(0x80 | (byte & 0x3f))};
        stream.Write(utf8, sizeof utf8);
        characters.remove_prefix(1);
    }
}

}  // namespace

void tosprintf(tb_dump_s* dump, char const* format, ...)
{
    char buffer[kPrintBufferSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    WriteLatin1(static_cast<wxTextOutputStream*>(dump->context), buffer);
}

std::size_t MemoryStream::OnSysWrite(const void* bytes, std::size_t size)
{
    if (m_lasterror != wxSTREAM_NO_ERROR) return 0;
    try {
        m_bytes.append(static_cast<const char*>(bytes), size);
        return size;
    } catch (const std::bad_alloc&) {
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }
}

std::string_view TextSink::Text() const
{
    if (!m_stream.IsOk()) throw std::bad_alloc();
    return m_stream.Bytes();
}

}  // namespace Filter::Diagnostics
