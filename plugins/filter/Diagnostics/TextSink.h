// Where the driver library prints its text dumps.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <wx/stream.h>
#include <wx/txtstrm.h>

#include "Export.h"
#include "vxi/vxi.h"

namespace Filter::Diagnostics {

// Print function for the driver library's text dumps; the record's context must be a
// wxTextOutputStream. Writes at most 1023 characters per call.
FC_PUBLIC void tosprintf(tb_dump_s* dump, char const* format, ...)
    __attribute__((format(printf, 2, 3)));

// A stream into memory. Exceptions must not pass through the driver library's frames, so when
// memory runs out the stream fails and accepts nothing more.
class MemoryStream : public wxOutputStream {
public:
    std::string_view Bytes() const { return m_bytes; }

protected:
    std::size_t OnSysWrite(const void* bytes, std::size_t size) override;

private:
    std::string m_bytes;
};

// Collects the text of one dump.
class TextSink {
public:
    TextSink() = default;
    TextSink(const TextSink&) = delete;
    TextSink& operator=(const TextSink&) = delete;

    // What a tb_dump_ function prints to.
    tb_dump_s* Dump() { return &m_dump; }

    // Returns the text printed so far, valid until more is printed. Throws std::bad_alloc if it
    // did not fit into memory.
    std::string_view Text() const;

private:
    MemoryStream m_stream;
    wxTextOutputStream m_text{m_stream, wxEOL_NATIVE};
    tb_dump_s m_dump{tosprintf, &m_text};
};

}  // namespace Filter::Diagnostics
