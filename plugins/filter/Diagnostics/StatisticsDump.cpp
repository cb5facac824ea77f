// The driver's statistics as an archive entry.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "MallocPtr.h"
#include "TextSink.h"

namespace Filter::Diagnostics {
namespace {

constexpr const wchar_t* kOperation = L"GET_STATS";

// A driver that uses this layout leaves these words of the record unchanged.
constexpr std::uint16_t kIdentification[3] = {275, 30, 1};

// The areas point into the record itself: it must not move afterwards.
void PrepareRequest(vxa_stats_v2_s* stats)
{
    stats->request = 12;
    stats->revision = 6;
    stats->declared_size = 6444;  // of the driver's own block, not of this record
    stats->block_count = 1;
    stats->header_size = 64;
    std::memcpy(stats->identification, kIdentification, sizeof kIdentification);
    stats->word_size = 32;
    stats->area1 = stats->body1;
    stats->area2 = stats->body2;
    stats->area3 = stats->body3;
}

bool HasIdentification(const vxa_stats_v2_s& stats)
{
    return std::memcmp(stats.identification, kIdentification, sizeof kIdentification) == 0;
}

// Reports a different layout like a failed call.
bool QueryStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_stats_v2_s* stats)
{
    return getDriverStatistics(dom, handle, stats, sizeof *stats) &&
           (HasIdentification(*stats) || ShowErrors(dom, handle, kOperation, -1));
}

}  // namespace

bool getDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_stats_v2_s* stats,
                         unsigned int size)
{
    constexpr const char* kFunction = "getDriverStatistics";
    TraceAt(333, kFunction, "getDriverStatistics()");
    if (!IsDriverOpen(handle)) return false;
    TraceAt(338, kFunction, "driver is opened calling vxi_get_stats");
    return ShowErrors(dom, handle, kOperation, vxi_get_stats(handle, stats, size));
}

bool AddDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         VxaCore::CZipOutputStream& zip)
{
    constexpr const char* kFunction = "AddDriverStatistics";
    TraceAt(100, kFunction, "AddDriverStatistics()");
    MallocPtr<vxa_stats_v2_s> stats(
        static_cast<vxa_stats_v2_s*>(std::calloc(1, sizeof(vxa_stats_v2_s))));
    if (!stats) return false;
    PrepareRequest(stats.get());
    TraceAt(107, kFunction, "AddDriverStatistics() - about to get stats");
    if (!QueryStatistics(dom, handle, stats.get())) return false;
    TraceAt(124, kFunction, "AddDriverStatistics() - got stats");
    TextSink sink;
    tb_dump_stats(sink.Dump(), stats.get());
    TraceAt(126, kFunction, "AddDriverStatistics() - dumped stats");
    stats.reset();
    return AddTextEntry(zip, kStatisticsEntry, sink.Text());
}

}  // namespace Filter::Diagnostics
