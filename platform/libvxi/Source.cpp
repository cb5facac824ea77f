#include "Source.h"

#include <cstdarg>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "vxi/vxi.h"

namespace vxi {

namespace {

struct Names {
    std::mutex mutex;
    std::map<std::pair<std::string_view, Area>, std::shared_ptr<const SlotNames>> by_area;
};

Names& names()
{
    // Never destroyed: a dump may run while the process ends. Not on the heap: a dump
    // allocates nothing, so that it cannot fail.
    alignas(Names) static unsigned char place[sizeof(Names)];
    static Names& instance = *new (place) Names;
    return instance;
}

thread_local Source sources[table_count];

struct DetailedSection {
    const vxa_dump_conntrack_s* section = nullptr;
    std::uint16_t entries = 0;
    FlowDetails details;
};

// UDP's and everything else's.
thread_local DetailedSection detailed_sections[2];

DetailedSection& detailed(const vxa_dump_conntrack_s& section)
{
    constexpr std::uint8_t udp = 17;
    return detailed_sections[section.protocol != udp];
}

Source& source_of(Table table)
{
    return sources[static_cast<unsigned>(table)];
}

}  // namespace

void set_slot_names(const char* engine, Area area, SlotNames slots)
{
    auto fresh = std::make_shared<const SlotNames>(std::move(slots));
    const std::lock_guard<std::mutex> lock(names().mutex);
    names().by_area[{engine, area}] = std::move(fresh);
}

std::shared_ptr<const SlotNames> slot_names(const char* engine, Area area)
{
    const std::lock_guard<std::mutex> lock(names().mutex);
    const auto found = names().by_area.find({engine, area});
    return found != names().by_area.end() ? found->second : nullptr;
}

void note_source(Table table, const char* format, ...)
{
    Source& source = source_of(table);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(source.text, sizeof source.text, format, arguments);
    va_end(arguments);
}

void note_flow_details(const vxa_dump_conntrack_s& section, FlowDetails details)
{
    detailed(section) = {&section, section.entry_ct, std::move(details)};
}

const FlowDetails& flow_details(const vxa_dump_conntrack_s& section)
{
    static const FlowDetails none;
    const DetailedSection& known = detailed(section);
    const bool same = known.section == &section && known.entries == section.entry_ct;
    return same ? known.details : none;
}

void begin_fetch(Table table, const char* engine)
{
    Source& source = source_of(table);
    // A snapshot and the fills served from it are one fetch with one source.
    if (source.engine != engine) {
        source.text[0] = '\0';
    }
    source.engine = engine;
}

const Source& last_source(Table table)
{
    return source_of(table);
}

}  // namespace vxi
