// The two stores: feeding and publication.

#include <cwchar>
#include <string>

#include "ConnMetrics.h"
#include "KeyIndex.h"
#include "LuaBoundary.h"

wxCriticalSection g_cmfb_map_fin_cs;
ConnMetricMap g_cmfb_map;
ConnMetricMap g_cmfb_map_fin;
// The first publication comes no sooner than the interval after loading.
std::time_t g_last_fb_time = std::time(nullptr);

namespace {

constexpr std::size_t kMostKeys = 10000;
constexpr std::time_t kPublicationIntervalS = 60;

fc::KeyIndex s_index;

// The C library's multibyte conversion; what it cannot decode is the empty text. Not left
// to wxString, which reports a lack of memory there as if the text were null.
wxString FromMultibyte(const char* text)
{
    std::mbstate_t state{};
    const char* source = text;
    const std::size_t length = std::mbsrtowcs(nullptr, &source, 0, &state);
    if (length == static_cast<std::size_t>(-1)) return wxString();
    std::wstring wide(length, L'\0');
    state = {};
    source = text;
    std::mbsrtowcs(wide.data(), &source, length, &state);
    return wxString(wide);
}

// Only a count: the key's text stays as first fed.
bool CountKnownKey(const wxString& key, std::uint32_t count)
{
    const auto found = g_cmfb_map.find(key);
    if (found == g_cmfb_map.end()) return false;
    found->second.count += count;
    return true;
}

// Without memory for the index the entry is simply found through the map from now on.
void IndexEntry(std::string_view bytes, const wxString& key)
{
    try {
        s_index.Insert(bytes, &g_cmfb_map.find(key)->second.count);
    } catch (const std::bad_alloc&) {
    }
}

bool StoreIsFull()
{
    return g_cmfb_map.size() >= kMostKeys;
}

// A key that only the map can tell: new, or not plain.
void AddThroughMap(std::string_view bytes, const char* text, std::uint32_t count)
{
    const bool plain = fc::IsPlainAscii(bytes);
    // Every stored key is indexed and this one is not among them: it is new.
    if (plain && StoreIsFull() && s_index.size() == g_cmfb_map.size()) return;
    const wxString key = FromMultibyte(bytes.data());
    if (!CountKnownKey(key, count)) {
        if (StoreIsFull()) return;
        g_cmfb_map.emplace(key, vxa_conn_metric_feedback_s{FromMultibyte(text), count});
    }
    if (plain) IndexEntry(bytes, key);
}

bool PublicationIsDue(std::time_t now)
{
    wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
    return now - g_last_fb_time > kPublicationIntervalS;
}

void Publish(std::time_t now)
{
    s_index.Flush();
    {
        wxCriticalSectionLocker lock(g_cmfb_map_fin_cs);
        if (g_cmfb_map_fin.empty())
            g_cmfb_map_fin.swap(g_cmfb_map);
        else
            MergeConnMetrics(&g_cmfb_map, &g_cmfb_map_fin);
        g_last_fb_time = now;
    }
    g_cmfb_map.clear();
    s_index.Clear();
}

}  // namespace

void MergeConnMetrics(ConnMetricMap* from, ConnMetricMap* into)
{
    for (auto entry = from->begin(); entry != from->end();) {
        const auto next = std::next(entry);
        const auto known = into->find(entry->first);
        if (known != into->end())
            known->second.count += entry->second.count;
        else if (into->size() < kMostKeys)
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
    if (count != 0 && !s_index.Count({key, length}, count))
        fc::Guarded(L, [&] { AddThroughMap({key, length}, text, count); });
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
