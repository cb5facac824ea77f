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

Names& GlobalNames()
{
    // Never destroyed: a dump may run while the process ends. Not on the heap: a dump
    // allocates nothing, so that it cannot fail.
    alignas(Names) static unsigned char place[sizeof(Names)];
    static Names& instance = *new (place) Names;
    return instance;
}

thread_local Source sources[kTableCount];

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
pthread_key_t SectionsKey()
{
    static const pthread_key_t kEy = [] {
        pthread_key_t made = PTHREAD_KEYS_MAX;  // has no value and takes none
        (void)pthread_key_create(&made,
                                 [](void* all) { delete static_cast<DetailedSections*>(all); });
        return made;
    }();
    return kEy;
}

DetailedSection* Detailed(const vxa_dump_conntrack_s& section)
{
    auto* all = static_cast<DetailedSections*>(pthread_getspecific(SectionsKey()));
    if (!all) return nullptr;
    return section.protocol == IPPROTO_UDP ? &all->udp : &all->other;
}

void MakeSections()
{
    auto all = std::make_unique<DetailedSections>();
    if (pthread_setspecific(SectionsKey(), all.get()) != 0) throw std::bad_alloc();
    (void)all.release();
}

Source& SourceOf(Table table)
{
    return sources[static_cast<unsigned>(table)];
}

}  // namespace

void SetSlotNames(const char* engine, Area area, SlotNames slots)
{
    auto fresh = std::make_shared<const SlotNames>(std::move(slots));
    const std::lock_guard<std::mutex> lock(GlobalNames().mutex);
    GlobalNames().by_area[{engine, area}] = std::move(fresh);
}

std::shared_ptr<const SlotNames> SlotNamesOf(const char* engine, Area area)
{
    const std::lock_guard<std::mutex> lock(GlobalNames().mutex);
    const auto found = GlobalNames().by_area.find({engine, area});
    return found != GlobalNames().by_area.end() ? found->second : nullptr;
}

void NoteSource(Table table, const char* format, ...)
{
    Source& source = SourceOf(table);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(source.text, sizeof source.text, format, arguments);
    va_end(arguments);
}

void NoteFlowDetails(const vxa_dump_conntrack_s& section, FlowDetails details)
{
    if (!details.empty() && !Detailed(section)) MakeSections();
    if (DetailedSection* known = Detailed(section))
        *known = {&section, section.entry_ct, std::move(details)};
}

const FlowDetails& FlowDetailsOf(const vxa_dump_conntrack_s& section)
{
    static const FlowDetails kNone;
    const DetailedSection* known = Detailed(section);
    const bool same = known && known->section == &section && known->entries == section.entry_ct;
    return same ? known->details : kNone;
}

void begin_fetch(Table table, const char* engine)
{
    Source& source = SourceOf(table);
    // A snapshot and the fills served from it are one fetch with one source.
    if (source.engine != engine) {
        source.text[0] = '\0';
    }
    source.engine = engine;
}

const Source& LastSource(Table table)
{
    return SourceOf(table);
}

}  // namespace vxi
