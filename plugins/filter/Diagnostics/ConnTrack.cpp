// Connection tracking: a sized query in three steps, UDP before TCP in one block.

#include <netinet/in.h>

#include <algorithm>

#include "TextEntry.h"

namespace Filter::Diagnostics {
namespace {

constexpr std::size_t kHeaderSize = sizeof(vxa_dump_conntrack_s);
constexpr std::size_t kEntrySize = sizeof(vxa_conntrack_entry_s);
constexpr const char* kQuery = "getDriverConnTrack";

// One request series: what all of its calls share.
struct Query {
    VxaCore::CDom* dom;
    vxi_handle_ops_s* handle;
    unsigned int extra;
};

int Request(Query* query, vxa_dump_conntrack_s* section, std::size_t size, bool* succeeded)
{
    const int rc =
        vxi_get_conntrack(query->handle, section, static_cast<unsigned int>(size), &query->extra);
    *succeeded = ShowErrors(query->dom, query->handle, L"GET_CONN_TRACK", rc);
    return rc;
}

// What the traces of one protocol show.
struct SectionTraces {
    const char* name;
    int failure_line;
    int count_line;
};

// The table changes while it is read: a protocol that fails leaves its section empty and
// does not cost the other one.
void QuerySection(Query* query, vxa_dump_conntrack_s* section, int failure_line)
{
    bool succeeded = false;
    const int rc =
        Request(query, section, kHeaderSize + kEntrySize * section->entry_ct, &succeeded);
    if (succeeded) return;
    TraceLine(failure_line, kQuery, "rc = %d", rc);
    section->entry_ct = 0;
}

// A driver that claims more than the capacity is held to it; the trace shows its own number.
void FillSection(Query* query, vxa_dump_conntrack_s* section, std::uint8_t protocol,
                 std::uint16_t capacity, const SectionTraces& traces)
{
    *section = {};
    section->request = VXA_CONNTRACK_REQUEST_TABLE;
    section->entry_ct = capacity;
    section->protocol = protocol;
    if (capacity != 0) QuerySection(query, section, traces.failure_line);
    TraceLine(traces.count_line, kQuery, "%s->entry_ct = %u", traces.name,
              static_cast<unsigned int>(section->entry_ct));
    section->entry_ct = std::min(section->entry_ct, capacity);
}

vxa_dump_conntrack_s* SectionAfter(vxa_dump_conntrack_s* section)
{
    auto* bytes = reinterpret_cast<unsigned char*>(section);
    return reinterpret_cast<vxa_dump_conntrack_s*>(bytes + kHeaderSize +
                                                   kEntrySize * section->entry_ct);
}

void FillTable(Query* query, vxa_dump_conntrack_s* udp, std::uint16_t count)
{
    FillSection(query, udp, IPPROTO_UDP, count, {"udpConn", 293, 296});
    vxa_dump_conntrack_s* tcp = SectionAfter(udp);
    FillSection(query, tcp, IPPROTO_TCP, static_cast<std::uint16_t>(count - udp->entry_ct),
                {"tcpConn", 311, 315});
}

}  // namespace

bool getDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_dump_conntrack_s*& table)
{
    table = nullptr;
    if (!IsDriverOpen(handle)) return true;
    Query query{dom, handle, 0};
    vxa_dump_conntrack_s total{};
    total.request = VXA_CONNTRACK_REQUEST_TABLE;
    bool succeeded = false;
    Request(&query, &total, kHeaderSize, &succeeded);
    if (!succeeded) return false;
    const std::uint16_t count = total.entry_ct;
    TraceLine(273, kQuery, "totConn.entry_ct was %d", static_cast<int>(count));
    if (count == 0) return true;
    const std::size_t size = kEntrySize * count + 2 * kHeaderSize;
    Block<vxa_dump_conntrack_s> block(static_cast<vxa_dump_conntrack_s*>(std::malloc(size)));
    if (block)
        FillTable(&query, block.get(), count);
    else
        TraceLine(318, kQuery, "malloc %u bytes failed.", static_cast<unsigned int>(size));
    table = block.release();
    return true;
}

bool AddDriverConnTrack(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceLine(55, "AddDriverConnTrack", "AddDriverConnTrack()");
    vxa_dump_conntrack_s* table = nullptr;
    if (!getDriverConnTrack(dom, handle, table)) return false;
    // No driver, no connections or no memory: nothing to write is no failure.
    if (table == nullptr) return true;
    Block<vxa_dump_conntrack_s> block(table);
    return AddTextEntry(zip, L"vxa_conn_track.txt", [&block](tb_dump_s* sink) {
        tb_dump_all_conn_track(sink, block.get());
        block.reset();
    });
}

}  // namespace Filter::Diagnostics
