// The two stores of connection metric feedback: feeding and publication.

#include "Store.h"

#include <cwchar>
#include <new>
#include <string>
#include <string_view>

#include "ConnMetrics.h"
#include "KeyIndex.h"
#include "Limits.h"
#include "LuaBoundary.h"
#include "Numbers.h"

wxCriticalSection g_cmfb_map_fin_cs;
ConnMetricMap g_cmfb_map;
ConnMetricMap g_cmfb_map_fin;
// The first publication comes no sooner than the interval after loading.
std::time_t g_last_fb_time = std::time(nullptr);

namespace {

fc::KeyIndex s_index;

// Decodes with the C library's multibyte conversion; returns an empty string for what it cannot
// decode. wxString's own conversion mistakes a lack of memory for undecodable bytes.
wxString DecodeMultibyte(const char* bytes)
{
    std::mbstate_t state{};
    const char* source = bytes;
    const std::size_t length = std::mbsrtowcs(nullptr, &source, 0, &state);
    if (length == static_cast<std::size_t>(-1)) return wxString();
    std::wstring wide(length, L'\0');
    state = {};
    source = bytes;
    std::mbsrtowcs(wide.data(), &source, length, &state);
    return wxString(wide);
}

bool StoreIsFull()
{
    return g_cmfb_map.size() >= fc::kMaxKeys;
}

// Returns whether every stored key is in the index.
bool IndexIsComplete()
{
    return s_index.Size() == g_cmfb_map.size();
}

// Without memory for the index the key is simply looked up in the map from then on.
void IndexKey(std::string_view bytes, std::uint32_t* total)
{
    try {
        s_index.Insert(bytes, total);
    } catch (const std::bad_alloc&) {
    }
}

// Adds an observation whose key is not in the index.
void AddToWorkingStore(std::string_view bytes, const char* text, std::uint32_t count)
{
    const bool plain = fc::IsPlainAscii(bytes);
    if (plain && StoreIsFull() && IndexIsComplete()) return;
    const wxString key = DecodeMultibyte(bytes.data());
    auto entry = g_cmfb_map.find(key);
    if (entry != g_cmfb_map.end())
        entry->second.count += count;
    else if (!StoreIsFull())
        entry =
            g_cmfb_map.emplace(key, vxa_conn_metric_feedback_s{DecodeMultibyte(text), count}).first;
    else
        return;
    if (plain) IndexKey(bytes, &entry->second.count);
}

bool PublicationIsDue(std::time_t now)
{
    wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
    return now - g_last_fb_time >= fc::kMinPublicationIntervalS;
}

void Publish(std::time_t now)
{
    s_index.FlushAndClear();
    {
        wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
        if (g_cmfb_map_fin.empty())
            g_cmfb_map_fin.swap(g_cmfb_map);
        else
            MergeConnMetrics(&g_cmfb_map, &g_cmfb_map_fin);
        g_last_fb_time = now;
    }
    g_cmfb_map.clear();
}

}  // namespace

void MergeConnMetrics(ConnMetricMap* from, ConnMetricMap* into)
{
    for (auto entry = from->begin(); entry != from->end();) {
        const auto next = std::next(entry);
        const auto known = into->find(entry->first);
        if (known != into->end())
            known->second.count += entry->second.count;
        else if (into->size() < fc::kMaxKeys)
            into->insert(from->extract(entry));
        entry = next;
    }
}

int AddToConnMetrics(lua_State* L)
{
    std::size_t length = 0;
    const char* key = luaL_checklstring(L, 1, &length);
    const char* text = luaL_checkstring(L, 2);
    const auto count = static_cast<std::uint32_t>(fc::TruncateToInt64(luaL_checknumber(L, 3)));
    if (count != 0 && !s_index.AddToKnown({key, length}, count))
        fc::Guarded(L, [&] { AddToWorkingStore({key, length}, text, count); });
    return 0;
}

int UpdateConnMetrics(lua_State* L)
{
    fc::Guarded(L, [] {
        const std::time_t now = std::time(nullptr);
        if (PublicationIsDue(now)) Publish(now);
    });
    return 0;
}
