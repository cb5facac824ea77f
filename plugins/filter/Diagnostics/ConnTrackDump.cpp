// The driver's flow table as an archive entry: one block with UDP before TCP.

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "MallocPtr.h"
#include "TextSink.h"

namespace Filter::Diagnostics {
namespace {

constexpr std::size_t kHeaderSize = sizeof(vxa_dump_conntrack_s);
constexpr std::size_t kEntrySize = sizeof(vxa_conntrack_entry_s);
constexpr const char* kFunction = "getDriverConnTrack";

// What all calls of one query share.
struct Query {
    VxaCore::CDom* dom;
    vxi_handle_ops_s* handle;
    unsigned int extra;
};

// Lines and name in the traces of one protocol.
struct SectionTraces {
    const char* name;
    int failure_line;
    int count_line;
};

// Returns the driver's status; a failure has been reported.
int QuerySection(Query* query, vxa_dump_conntrack_s* section, std::size_t size)
{
    const int rc =
        vxi_get_conntrack(query->handle, section, static_cast<unsigned int>(size), &query->extra);
    ShowErrors(query->dom, query->handle, L"GET_CONN_TRACK", rc);
    return rc;
}

// The driver may report more entries than the section has room for: the trace shows the driver's
// count, the section keeps what fits. If the call fails the section stays empty, and the other
// protocol is still read.
void FillSection(Query* query, vxa_dump_conntrack_s* section, std::uint8_t protocol,
                 std::uint16_t capacity, const SectionTraces& traces)
{
    *section = {};
    section->request = VXA_CONNTRACK_REQUEST_TABLE;
    section->entry_ct = capacity;
    section->protocol = protocol;
    const int rc =
        capacity != 0 ? QuerySection(query, section, kHeaderSize + kEntrySize * capacity) : 0;
    if (rc != 0) {
        TraceAt(traces.failure_line, kFunction, "rc = %d", rc);
        section->entry_ct = 0;
    }
    TraceAt(traces.count_line, kFunction, "%s->entry_ct = %u", traces.name,
            static_cast<unsigned int>(section->entry_ct));
    section->entry_ct = std::min(section->entry_ct, capacity);
}

vxa_dump_conntrack_s* NextSection(vxa_dump_conntrack_s* section)
{
    auto* bytes = reinterpret_cast<unsigned char*>(section);
    return reinterpret_cast<vxa_dump_conntrack_s*>(bytes + kHeaderSize +
                                                   kEntrySize * section->entry_ct);
}

void FillTable(Query* query, vxa_dump_conntrack_s* udp, std::uint16_t count)
{
    FillSection(query, udp, IPPROTO_UDP, count, {"udpConn", 293, 296});
    FillSection(query, NextSection(udp), IPPROTO_TCP,
                static_cast<std::uint16_t>(count - udp->entry_ct), {"tcpConn", 311, 315});
}

}  // namespace

bool getDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_dump_conntrack_s*& table)
{
    table = nullptr;
    if (!IsDriverOpen(handle)) return true;
    Query query{dom, handle, 0};
    vxa_dump_conntrack_s total{};
    total.request = VXA_CONNTRACK_REQUEST_TABLE;
    if (QuerySection(&query, &total, kHeaderSize) != 0) return false;
    const std::uint16_t count = total.entry_ct;
    TraceAt(273, kFunction, "totConn.entry_ct was %d", static_cast<int>(count));
    if (count == 0) return true;
    const std::size_t size = kEntrySize * count + 2 * kHeaderSize;
    MallocPtr<vxa_dump_conntrack_s> block(static_cast<vxa_dump_conntrack_s*>(std::malloc(size)));
    if (block)
        FillTable(&query, block.get(), count);
    else
        TraceAt(318, kFunction, "malloc %u bytes failed.", static_cast<unsigned int>(size));
    table = block.release();
    return true;
}

bool AddDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceAt(55, "AddDriverConnTrack", "AddDriverConnTrack()");
    vxa_dump_conntrack_s* table = nullptr;
    if (!getDriverConnTrack(dom, handle, table)) return false;
    if (!table) return true;
    MallocPtr<vxa_dump_conntrack_s> block(table);
    TextSink sink;
    tb_dump_all_conn_track(sink.Dump(), table);
    block.reset();
    return AddTextEntry(zip, kConnTrackEntry, sink.Text());
}

}  // namespace Filter::Diagnostics
