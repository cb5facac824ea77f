// Shared by the dumps: blocks from malloc, traces of this area, the text pipeline.
#pragma once

#include <cstdlib>
#include <memory>

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

// The lines are fixed: log filters select on them, wherever the code now stands.
template <typename... Args>
void TraceLine(int line, const char* function, const char* format, const Args&... args)
{
    fc::Trace(s_Trace, {"plugins/filter/Diagnostics", line, function}, format, args...);
}

// Adds an entry of what the stream collected.
bool AddEntry(VxaCore::CZipOutputStream& zip, const char* name, bool text,
              const wxMemoryOutputStream& memory);

// Adds an entry of the text that print(sink) writes.
template <typename Print>
bool AddTextEntry(VxaCore::CZipOutputStream& zip, const char* name, Print print)
{
    wxMemoryOutputStream memory;
    {
        wxTextOutputStream text(memory, wxEOL_NATIVE);
        tb_dump_s sink{tosprintf, &text};
        print(&sink);
    }
    return AddEntry(zip, name, true, memory);
}

}  // namespace Filter::Diagnostics
