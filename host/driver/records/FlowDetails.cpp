// Keeps the details of the sections that a thread filled last.
#include "records/FlowDetails.h"

#include <limits.h>
#include <netinet/in.h>
#include <pthread.h>

#include <memory>
#include <new>
#include <utility>

namespace vxi {

namespace {

struct DetailedSection {
    const vxa_dump_conntrack_s* section = nullptr;
    std::uint16_t entries = 0;
    FlowDetails details;
};

struct ThreadSections {
    DetailedSection udp;
    DetailedSection other;
};

// Not thread_local: libstdc++ ends the process when memory runs out while it registers the
// destructor (__cxa_thread_atexit has no way to report that).
pthread_key_t SectionsKey()
{
    static const pthread_key_t kKey = [] {
        pthread_key_t key = PTHREAD_KEYS_MAX;  // not a valid key: has no value and takes none
        (void)pthread_key_create(&key,
                                 [](void* value) { delete static_cast<ThreadSections*>(value); });
        return key;
    }();
    return kKey;
}

// Null until the thread has called MakeSections.
DetailedSection* FindSection(const vxa_dump_conntrack_s& section)
{
    auto* const sections = static_cast<ThreadSections*>(pthread_getspecific(SectionsKey()));
    if (!sections) {
        return nullptr;
    }
    return section.protocol == IPPROTO_UDP ? &sections->udp : &sections->other;
}

void MakeSections()
{
    auto sections = std::make_unique<ThreadSections>();
    if (pthread_setspecific(SectionsKey(), sections.get()) != 0) {
        throw std::bad_alloc();
    }
    (void)sections.release();
}

}  // namespace

void SetFlowDetails(const vxa_dump_conntrack_s& section, FlowDetails details)
{
    if (!details.empty() && !FindSection(section)) {
        MakeSections();
    }
    if (DetailedSection* known = FindSection(section)) {
        *known = {&section, section.entry_ct, std::move(details)};
    }
}

const FlowDetails& FindFlowDetails(const vxa_dump_conntrack_s& section)
{
    static const FlowDetails kNone;
    const DetailedSection* known = FindSection(section);
    const bool same = known && known->section == &section && known->entries == section.entry_ct;
    return same ? known->details : kNone;
}

}  // namespace vxi
