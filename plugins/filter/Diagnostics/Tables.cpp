// Blacklist, connection states, filter variables and statistics.

#include <algorithm>
#include <cstring>

#include "TextEntry.h"

namespace Filter::Diagnostics {
namespace {

constexpr unsigned int kVariableCount = VXA_FILTER_VARIABLE_COUNT;

// What the driver must echo, as proof that it filled this layout.
constexpr std::uint16_t kIdentification[3] = {275, 30, 1};

void PrepareStatistics(vxa_stats_v2_s* stats)
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

bool IdentificationEchoed(const vxa_stats_v2_s& stats)
{
    return std::memcmp(stats.identification, kIdentification, sizeof kIdentification) == 0;
}

bool QueryStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_stats_v2_s* stats)
{
    return getDriverStatistics(dom, handle, stats, sizeof *stats) &&
           (IdentificationEchoed(*stats) || ShowErrors(dom, handle, L"GET_STATS", -1));
}

}  // namespace

// ---- blacklist -------------------------------------------------------------------------

bool getDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        vxa_blacklist_get_addrs_s*& list)
{
    list = nullptr;
    if (!IsDriverOpen(handle)) return false;
    vxa_blacklist_get_addrs_s header{};
    // Events name this operation so; the management side knows the text.
    constexpr const wchar_t* kOperation = L"BLACKLIST_ADD";
    if (!ShowErrors(dom, handle, kOperation, vxi_get_blacklist(handle, &header))) return false;
    const auto size = static_cast<std::uint32_t>(sizeof header) + header.entries_size;
    // A driver that claims 4 GiB makes the sum wrap: as good as no memory.
    if (size < sizeof header) return false;
    list = static_cast<vxa_blacklist_get_addrs_s*>(std::malloc(size));
    if (list == nullptr) return false;
    Block<vxa_blacklist_get_addrs_s> block(list);
    std::memcpy(list, &header, sizeof header);
    if (!ShowErrors(dom, handle, kOperation, vxi_get_blacklist(handle, list)))
        return false;  // the block is freed; callers do not look at the list
    if (list->entries_size > header.entries_size)
        TraceLine(245, "getDriverBlacklist", "driver reported %u bytes, room for %u",
                  list->entries_size, header.entries_size);
    list->entries_size = std::min(list->entries_size, header.entries_size);
    block.release();
    return true;
}

bool AddDriverBlacklist(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceLine(17, "AddDriverBlacklist", "AddDriverBlacklist()");
    vxa_blacklist_get_addrs_s* list = nullptr;
    if (!getDriverBlacklist(dom, handle, list)) return false;
    Block<vxa_blacklist_get_addrs_s> block(list);
    return AddTextEntry(zip, L"vxa_blacklist.txt", [&block](tb_dump_s* sink) {
        tb_dump_blacklist(sink, block.get());
        block.reset();
    });
}

// ---- connection states -----------------------------------------------------------------

bool getDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         vxa_get_conn_states_s* states)
{
    return IsDriverOpen(handle) &&
           ShowErrors(dom, handle, L"GET_CONN_STATES", vxi_get_conn_states(handle, states));
}

// Complete, but no part of the bundle: hosts that want the entry call it themselves.
bool AddDriverConnStates(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         VxaCore::CZipOutputStream& zip)
{
    TraceLine(37, "AddDriverConnStates", "AddDriverConnStates()");
    vxa_get_conn_states_s states;
    if (!getDriverConnStates(dom, handle, &states)) return false;
    return AddTextEntry(zip, L"vxa_conn_states.txt",
                        [&](tb_dump_s* sink) { tb_dump_conn_states(sink, &states); });
}

// ---- filter variables ------------------------------------------------------------------

bool getDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_filter_variable_s* vars,
                        unsigned int count)
{
    if (!IsDriverOpen(handle) || count == 0) return false;
    for (unsigned int i = 0; i < count; ++i) {
        const int rc = vxi_get_varv(handle, &vars[i]);
        // An older driver knows fewer variables: no fault worth an event.
        if (rc == VXI_E_UNKNOWN_VARIABLE || !ShowErrors(dom, handle, L"GET_VARIABLE", rc))
            return false;
    }
    return true;
}

bool AddDriverVariables(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceLine(141, "AddDriverVariables", "AddDriverVariables()");
    vxa_filter_variable_s vars[kVariableCount] = {};
    for (unsigned int i = 0; i < kVariableCount; ++i) vars[i].number = i;
    if (!getDriverVariables(dom, handle, vars, kVariableCount)) return false;
    return AddTextEntry(zip, L"vxa_variables.txt", [&](tb_dump_s* sink) {
        for (auto& variable : vars) tb_dump_filter_variable(sink, &variable, 0);
    });
}

// ---- statistics ------------------------------------------------------------------------

bool getDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle, vxa_stats_v2_s* stats,
                         unsigned int size)
{
    TraceLine(333, "getDriverStatistics", "getDriverStatistics()");
    if (!IsDriverOpen(handle)) return false;
    TraceLine(338, "getDriverStatistics", "driver is opened calling vxi_get_stats");
    return ShowErrors(dom, handle, L"GET_STATS", vxi_get_stats(handle, stats, size));
}

bool AddDriverStatistics(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                         VxaCore::CZipOutputStream& zip)
{
    constexpr const char* kSelf = "AddDriverStatistics";
    TraceLine(100, kSelf, "AddDriverStatistics()");
    Block<vxa_stats_v2_s> stats(
        static_cast<vxa_stats_v2_s*>(std::calloc(1, sizeof(vxa_stats_v2_s))));
    if (!stats) return false;
    PrepareStatistics(stats.get());
    TraceLine(107, kSelf, "AddDriverStatistics() - about to get stats");
    if (!QueryStatistics(dom, handle, stats.get())) return false;
    TraceLine(124, kSelf, "AddDriverStatistics() - got stats");
    return AddTextEntry(zip, L"vxa_stats.txt", [&stats, kSelf](tb_dump_s* sink) {
        tb_dump_stats(sink, stats.get());
        TraceLine(126, kSelf, "AddDriverStatistics() - dumped stats");
        stats.reset();
    });
}

}  // namespace Filter::Diagnostics
