// Dumps blacklists. docs/diagnostic-texts.md describes the format.
#include <cstring>

#include "dumps/Heading.h"
#include "dumps/LineWriter.h"
#include "records/PublishedNames.h"
#include "vxi/vxi.h"

namespace vxi {

namespace {

void WriteEntry(LineWriter& lines, const vxa_blacklist_entry_s& entry)
{
    lines.Address(entry.address, entry.family);
    if (entry.flags & VXA_BLACKLIST_RANGE) {
        lines.Text("-").Address(entry.last, entry.family);
    }
    lines.Text(" set ").Number(entry.set_index);
    if (entry.flags & VXA_BLACKLIST_TIMEOUT) {
        lines.Text(" expires ").Number(entry.expires_s).Text("s of ");
        lines.Number(entry.timeout_s).Text("s");
    }
    lines.EndLine();
}

void WriteSetNames(LineWriter& lines, const char* engine)
{
    const auto sets = PublishedNames(engine, NameList::kBlacklistSets);
    for (std::size_t i = 0; sets && i < sets->names.size(); ++i) {
        lines.Text("# set ").Number(i).Text(": ").Escaped(sets->names[i], true).EndLine();
    }
    const auto skipped = PublishedNames(engine, NameList::kBlacklistSkipped);
    for (std::size_t i = 0; skipped && i < skipped->names.size(); ++i) {
        lines.Text("# skipped ").Escaped(skipped->names[i], true).EndLine();
    }
}

void WriteBlacklist(LineWriter& lines, const vxa_blacklist_get_addrs_s& list)
{
    constexpr std::uint32_t kEntrySize = sizeof(vxa_blacklist_entry_s);
    const std::uint32_t count = list.entries_size / kEntrySize;
    const TableOrigin& origin = LastOrigin(Table::kBlacklist);
    WriteHeading(lines, "blacklist", origin);
    lines.Text(", ").Number(count).Text(" entries, ").Number(list.set_count).Text(" sets");
    if (list.entries_size % kEntrySize != 0) {
        lines.Text("; the last entry is cut");
    }
    lines.EndLine();
    WriteSetNames(lines, EngineName(origin));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&list + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        // The header is 44 bytes long, so the entries after it are not aligned.
        vxa_blacklist_entry_s entry;
        std::memcpy(&entry, bytes + std::size_t{i} * kEntrySize, kEntrySize);
        WriteEntry(lines, entry);
    }
}

}  // namespace

}  // namespace vxi

void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list)
{
    vxi::Dump(sink, list, vxi::WriteBlacklist);
}
