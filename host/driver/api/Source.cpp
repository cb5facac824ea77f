#include "api/Source.h"

#include <limits.h>
#include <netinet/in.h>
#include <pthread.h>

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
struct DetailedSections {
    DetailedSection udp;
    DetailedSection other;
};

// Not thread_local: the process ends where memory runs out for registering a destructor.
pthread_key_t sections_key()
{
    static const pthread_key_t key = [] {
        pthread_key_t made = PTHREAD_KEYS_MAX;  // has no value and takes none
        (void)pthread_key_create(&made,
                                 [](void* all) { delete static_cast<DetailedSections*>(all); });
        return made;
    }();
    return key;
}

DetailedSection* detailed(const vxa_dump_conntrack_s& section)
{
    auto* all = static_cast<DetailedSections*>(pthread_getspecific(sections_key()));
    if (!all) return nullptr;
    return section.protocol == IPPROTO_UDP ? &all->udp : &all->other;
}

void make_sections()
{
    auto all = std::make_unique<DetailedSections>();
    if (pthread_setspecific(sections_key(), all.get()) != 0) throw std::bad_alloc();
    (void)all.release();
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
    if (!details.empty() && !detailed(section)) make_sections();
    if (DetailedSection* known = detailed(section))
        *known = {&section, section.entry_ct, std::move(details)};
}

const FlowDetails& flow_details(const vxa_dump_conntrack_s& section)
{
    static const FlowDetails none;
    const DetailedSection* known = detailed(section);
    const bool same = known && known->section == &section && known->entries == section.entry_ct;
    return same ? known->details : none;
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
