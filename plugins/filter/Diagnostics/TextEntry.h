// Shared by the dumps: blocks from malloc, traces of this area, the text pipeline.
#pragma once

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "Diagnostics.h"

namespace Filter::Diagnostics {

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

// A driver record in a malloc'ed block; freed on every path.
template <typename Record>
using Block = std::unique_ptr<Record, FreeBlock>;

// The lines are fixed: log filters select on them, whatever file the code is in.
void TraceLine(int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// What an entry is collected in. The driver library prints into it, and nothing may be thrown
// through that library's frames: without memory the stream fails and takes nothing more.
class EntryBytes : public wxOutputStream {
public:
    std::string_view Bytes() const { return m_bytes; }

protected:
    std::size_t OnSysWrite(const void* bytes, std::size_t size) override;

private:
    std::string m_bytes;
};

// Adds an entry of these bytes.
bool AddEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, bool text,
              std::string_view bytes);

// Adds an entry of the text that print(sink) writes. Raises std::bad_alloc when it did not fit
// into memory.
template <typename Print>
bool AddTextEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, Print print)
{
    EntryBytes entry;
    {
        wxTextOutputStream text(entry, wxEOL_NATIVE);
        tb_dump_s sink{tosprintf, &text};
        print(&sink);
    }
    if (!entry.IsOk()) throw std::bad_alloc();
    return AddEntry(zip, name, true, entry.Bytes());
}

}  // namespace Filter::Diagnostics
