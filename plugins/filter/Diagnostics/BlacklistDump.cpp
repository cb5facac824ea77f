// The driver's address blacklist as an archive entry.

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "MallocPtr.h"
#include "TextSink.h"

namespace Filter::Diagnostics {
namespace {

// The operation that events name; log filters and scripts match it.
constexpr const wchar_t* kOperation = L"BLACKLIST_ADD";

// Asks the driver to fill a list that has room for entries_size bytes. If the driver reports more
// than that, the excess is ignored.
bool FillBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    const std::uint32_t room = list->entries_size;
    if (!ShowErrors(dom, handle, kOperation, vxi_get_blacklist(handle, list))) return false;
    if (list->entries_size > room)
        TraceAt(245, "getDriverBlacklist", "driver reported %u bytes, room for %u",
                list->entries_size, room);
    list->entries_size = std::min(list->entries_size, room);
    return true;
}

}  // namespace

bool getDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        vxa_blacklist_get_addrs_s*& list)
{
    list = nullptr;
    if (!IsDriverOpen(handle)) return false;
    vxa_blacklist_get_addrs_s header{};
    if (!ShowErrors(dom, handle, kOperation, vxi_get_blacklist(handle, &header))) return false;
    const auto size = static_cast<std::uint32_t>(sizeof header) + header.entries_size;
    // The sum wraps if the driver asks for 4 GiB, which could not be allocated anyway.
    if (size < sizeof header) return false;
    list = static_cast<vxa_blacklist_get_addrs_s*>(std::malloc(size));
    if (!list) return false;
    MallocPtr<vxa_blacklist_get_addrs_s> block(list);
    std::memcpy(list, &header, sizeof header);
    // On failure the block is freed and `list` dangles: callers must not use it then.
    if (!FillBlacklist(dom, handle, list)) return false;
    static_cast<void>(block.release());
    return true;
}

bool AddDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceAt(17, "AddDriverBlacklist", "AddDriverBlacklist()");
    vxa_blacklist_get_addrs_s* list = nullptr;
    if (!getDriverBlacklist(dom, handle, list)) return false;
    MallocPtr<vxa_blacklist_get_addrs_s> block(list);
    TextSink sink;
    tb_dump_blacklist(sink.Dump(), list);
    block.reset();
    return AddTextEntry(zip, kBlacklistEntry, sink.Text());
}

}  // namespace Filter::Diagnostics
