// Dumps statistics records. docs/diagnostic-texts.md describes the format.
#include <memory>

#include "dumps/Heading.h"
#include "dumps/LineWriter.h"
#include "records/PublishedNames.h"
#include "vxi/vxi.h"

namespace vxi {

namespace {

struct StatisticsArea {
    const std::uint64_t* slots;
    unsigned count;
    std::shared_ptr<const NumberedNames> names;

    bool Named(unsigned i) const
    {
        return names && i < names->names.size() && !names->names[i].empty();
    }
    // Slots with neither a name nor a value are unused.
    bool Shown(unsigned i) const { return Named(i) || slots[i] != 0; }
};

unsigned CountShown(const StatisticsArea& area)
{
    unsigned shown = 0;
    for (unsigned i = 0; i < area.count; ++i) {
        shown += area.Shown(i);
    }
    return shown;
}

// Real counters stay far below half of their range; the kernel's "no limit" is -1.
void WriteValue(LineWriter& lines, std::uint64_t value)
{
    const bool negative = value >> 63;
    lines.Text(negative ? "-" : "").Number(negative ? -value : value);
}

void WriteSlots(LineWriter& lines, unsigned number, const StatisticsArea& area)
{
    for (unsigned i = 0; i < area.count; ++i) {
        if (!area.Shown(i)) {
            continue;
        }
        if (area.Named(i)) {
            lines.Escaped(area.names->names[i], false);
        } else {
            lines.Number(number).Text("/").Number(i);
        }
        WriteValue(lines.Text(" "), area.slots[i]);
        lines.EndLine();
    }
}

StatisticsArea MakeArea(const char* engine, NameList list, const std::uint64_t* slots,
                        unsigned count)
{
    return {slots, slots ? count : 0, PublishedNames(engine, list)};
}

void WriteStatisticsHeading(LineWriter& lines, const TableOrigin& origin,
                            const StatisticsArea (&areas)[3])
{
    unsigned all = 0;
    unsigned shown = 0;
    unsigned dropped = 0;
    for (const StatisticsArea& area : areas) {
        all += area.count;
        shown += CountShown(area);
        dropped += area.names ? area.names->dropped : 0;
    }
    WriteHeading(lines, "statistics", origin);
    lines.Text(", showing ").Number(shown).Text(" of ").Number(all);
    lines.Text(" slots, the others are unused");
    if (dropped > 0) {
        lines.Text("; ").Number(dropped).Text(" items found no slot");
    }
    lines.EndLine();
}

void WriteStatistics(LineWriter& lines, const vxa_stats_v2_s& stats)
{
    const TableOrigin& origin = LastOrigin(Table::kStatistics);
    const char* const engine = EngineName(origin);
    const StatisticsArea areas[] = {
        MakeArea(engine, NameList::kStatistics1, stats.area1, VXA_STATS_AREA1_COUNT),
        MakeArea(engine, NameList::kStatistics2, stats.area2, VXA_STATS_AREA2_COUNT),
        MakeArea(engine, NameList::kStatistics3, stats.area3, VXA_STATS_AREA3_COUNT)};
    WriteStatisticsHeading(lines, origin, areas);
    for (unsigned i = 0; i < 3; ++i) {
        WriteSlots(lines, i + 1, areas[i]);
    }
}

}  // namespace

}  // namespace vxi

void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats)
{
    vxi::Dump(sink, stats, vxi::WriteStatistics);
}
