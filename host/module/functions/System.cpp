// What stock Lua lacks: clocks, environment, terminal, user, system.
#include <errno.h>
#include <link.h>
#include <sys/ioctl.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Module.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

template <clockid_t kClock>
int ReadClock(lua_State* L)
{
    timespec now;
    clock_gettime(kClock, &now);
    lua_pushnumber(
        L, static_cast<lua_Number>(now.tv_sec) + static_cast<lua_Number>(now.tv_nsec) / 1e9);
    return 1;
}

const char* CheckCString(lua_State* L, int index)
{
    const std::string_view text = CheckBytes(L, index);
    luaL_argcheck(L, text.find('\0') == text.npos, index, "string contains a NUL byte");
    return text.data();
}

int SetEnvironment(lua_State* L)
{
    const char* name = CheckCString(L, 1);
    luaL_argcheck(L, *name && !std::strchr(name, '='), 1,
                  "the name of an environment variable expected");
    const bool is_removed = lua_isnoneornil(L, 2);
    const char* value = is_removed ? "" : CheckCString(L, 2);
    if ((is_removed ? unsetenv(name) : setenv(name, value, 1)) != 0)
        return luaL_error(L, "cannot set %s: %s", name, std::strerror(errno));
    return 0;
}

int IsTerminal(lua_State* L)
{
    lua_pushboolean(L, isatty(luaL_checkint(L, 1)));
    return 1;
}

// Returns nothing if standard output is not a terminal.
int TerminalColumns(lua_State* L)
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 0;
    lua_pushnumber(L, size.ws_col);
    return 1;
}

int EffectiveUser(lua_State* L)
{
    lua_pushnumber(L, geteuid());
    return 1;
}

int SystemName(lua_State* L)
{
    utsname name;
    uname(&name);  // fails only for a bad pointer
    lua_createtable(L, 0, 5);
    SetString(L, "system", name.sysname);
    SetString(L, "host", name.nodename);
    SetString(L, "release", name.release);
    SetString(L, "version", name.version);
    SetString(L, "machine", name.machine);
    return 1;
}

// ---- build_id -----------------------------------------------------------------------------

struct BuildIdSearch {
    std::string_view file_name;
    std::string_view id;  // in the library's memory; empty until found
};

// Returns the bytes of the note NT_GNU_BUILD_ID in a segment of notes, which the linker has
// checked and the kernel mapped; empty if there is none.
std::string_view FindBuildId(std::string_view notes)
{
    const auto aligned = [](std::size_t size) { return (size + 3) & ~std::size_t{3}; };
    ElfW(Nhdr) header;
    while (notes.size() >= sizeof header) {
        std::memcpy(&header, notes.data(), sizeof header);
        notes.remove_prefix(sizeof header);
        const std::size_t name = aligned(header.n_namesz);
        if (name > notes.size() || header.n_descsz > notes.size() - name) break;
        if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == sizeof ELF_NOTE_GNU &&
            std::memcmp(notes.data(), ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0)
            return notes.substr(name, header.n_descsz);
        notes.remove_prefix(std::min(name + aligned(header.n_descsz), notes.size()));
    }
    return {};
}

// libvxi.so.1 is a version of libvxi.so.
bool IsVersionOf(std::string_view loaded, std::string_view file_name)
{
    const std::string_view version = loaded.substr(std::min(file_name.size(), loaded.size()));
    return loaded.substr(0, file_name.size()) == file_name &&
           (version.empty() || version.front() == '.');
}

int SearchLibrary(dl_phdr_info* library, std::size_t, void* data)
{
    auto& search = *static_cast<BuildIdSearch*>(data);
    const std::string_view path = library->dlpi_name;
    if (!IsVersionOf(path.substr(path.rfind('/') + 1), search.file_name)) return 0;
    for (int i = 0; i < library->dlpi_phnum && search.id.empty(); ++i) {
        const auto& segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_NOTE) continue;
        // The address is an integer in the library's headers.
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        const auto* notes = reinterpret_cast<const char*>(library->dlpi_addr + segment.p_vaddr);
        search.id = FindBuildId({notes, segment.p_memsz});
    }
    return 1;
}

// build_id(file_name): that of a loaded library, named with or without its version, in
// hexadecimal; nil if it has none or is not loaded.
int BuildId(lua_State* L)
{
    BuildIdSearch search{CheckBytes(L, 1), {}};
    dl_iterate_phdr(SearchLibrary, &search);
    if (search.id.empty()) return 0;
    char digits[2 * 64 + 1];
    const std::size_t size = std::min<std::size_t>(search.id.size(), 64);
    for (std::size_t i = 0; i < size; ++i)
        std::snprintf(digits + 2 * i, 3, "%02x", static_cast<unsigned char>(search.id[i]));
    lua_pushlstring(L, digits, 2 * size);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"clock", ReadClock<CLOCK_MONOTONIC>},
    {"time", ReadClock<CLOCK_REALTIME>},
    {"setenv", SetEnvironment},
    {"isatty", IsTerminal},
    {"terminal_columns", TerminalColumns},
    {"euid", EffectiveUser},
    {"uname", SystemName},
    {"build_id", BuildId},
    {nullptr, nullptr},
};

}  // namespace

void OpenSystem(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
