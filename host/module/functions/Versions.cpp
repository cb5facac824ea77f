// Which versions and builds of its own libraries the process has loaded.
#include <link.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Module.h"
#include "VxaCore/Version.h"
#include "boundary/Values.h"
#include "vxi/vxi.h"

namespace vxa {

namespace {

// A loaded library. Points into memory of the loader and of the library itself.
struct Library {
    const char* path;
    std::string_view build_id;  // empty if it has none
    std::string_view metadata;  // JSON, see cmake/identity.cpp; empty if it has none
};

// Plain, because Lua may raise an error while it is read.
struct Libraries {
    std::array<Library, 16> rows;  // as many as a process could have of one name
    std::size_t count;
};

// ---- notes --------------------------------------------------------------------------------

// See https://systemd.io/ELF_PACKAGE_METADATA/.
constexpr char kMetadataOwner[] = "FDO";
constexpr std::uint32_t kMetadataType = 0xcafe1a7e;

// Returns the description of a note in a segment of notes, which the linker has checked and the
// kernel mapped; empty if there is none. `owner` includes the NUL.
std::string_view FindNote(std::string_view notes, std::string_view owner, std::uint32_t type)
{
    const auto aligned = [](std::size_t size) { return (size + 3) & ~std::size_t{3}; };
    ElfW(Nhdr) header;
    while (notes.size() >= sizeof header) {
        std::memcpy(&header, notes.data(), sizeof header);
        notes.remove_prefix(sizeof header);
        const std::size_t name = aligned(header.n_namesz);
        if (name > notes.size() || header.n_descsz > notes.size() - name) break;
        if (header.n_type == type && notes.substr(0, header.n_namesz) == owner)
            return notes.substr(name, header.n_descsz);
        notes.remove_prefix(std::min(name + aligned(header.n_descsz), notes.size()));
    }
    return {};
}

void ReadNotes(const dl_phdr_info& loaded, Library& library)
{
    for (int i = 0; i < loaded.dlpi_phnum; ++i) {
        const auto& segment = loaded.dlpi_phdr[i];
        if (segment.p_type != PT_NOTE) continue;
        // The address is an integer in the library's headers.
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        const auto* start = reinterpret_cast<const char*>(loaded.dlpi_addr + segment.p_vaddr);
        const std::string_view notes(start, segment.p_memsz);
        if (library.build_id.empty())
            library.build_id =
                FindNote(notes, {ELF_NOTE_GNU, sizeof ELF_NOTE_GNU}, NT_GNU_BUILD_ID);
        if (library.metadata.empty())
            library.metadata =
                FindNote(notes, {kMetadataOwner, sizeof kMetadataOwner}, kMetadataType);
    }
}

// ---- libraries ----------------------------------------------------------------------------

// Whether the path ends in the name, or in the name with the version of a soname.
bool HasName(std::string_view path, std::string_view name)
{
    path.remove_prefix(path.rfind('/') + 1);
    return path.substr(0, name.size()) == name &&
           (path.size() == name.size() || path[name.size()] == '.');
}

struct Search {
    std::string_view name;
    Libraries found;
};

int AddIfNamed(dl_phdr_info* loaded, std::size_t, void* data)
{
    auto& search = *static_cast<Search*>(data);
    Libraries& found = search.found;
    if (!HasName(loaded->dlpi_name, search.name)) return 0;
    Library& library = found.rows[found.count];
    library.path = loaded->dlpi_name;
    ReadNotes(*loaded, library);
    return ++found.count == found.rows.size();
}

Libraries FindLibraries(std::string_view name)
{
    Search search{name, {}};
    dl_iterate_phdr(AddIfNamed, &search);
    return search.found;
}

// ---- results ------------------------------------------------------------------------------

// [-0, +1, m]
void PushHexadecimal(lua_State* L, std::string_view bytes)
{
    char digits[2 * 64 + 1];
    const std::size_t size = std::min<std::size_t>(bytes.size(), 64);
    for (std::size_t i = 0; i < size; ++i)
        std::snprintf(digits + 2 * i, 3, "%02x", static_cast<unsigned char>(bytes[i]));
    lua_pushlstring(L, digits, 2 * size);
}

// Returns the value of a member that is a string without escapes; empty if there is none.
std::string_view JsonString(std::string_view json, std::string_view start_of_member)
{
    const std::size_t start = json.find(start_of_member);
    if (start == json.npos) return {};
    json.remove_prefix(start + start_of_member.size());
    return json.substr(0, json.find('"'));
}

// [-0, +1, m]
void PushLibrary(lua_State* L, const char* name, const Library& library)
{
    lua_createtable(L, 0, 4);
    SetString(L, "name", name);
    // The loader's may go through a module's folder: lib/lua/5.2/../../libvxi.so.1.
    char path[PATH_MAX];
    SetString(L, "path", realpath(library.path, path) ? path : library.path);
    const std::string_view version = JsonString(library.metadata, R"("version":")");
    if (!version.empty()) {
        lua_pushlstring(L, version.data(), version.size());
        lua_setfield(L, -2, "version");
    }
    if (!library.build_id.empty()) {
        PushHexadecimal(L, library.build_id);
        lua_setfield(L, -2, "build_id");
    }
}

constexpr const char* kNames[] = {"fc.so", "vxa.so", "libvxi.so", "libvxa_core.so"};

int Versions(lua_State* L)
{
    lua_newtable(L);
    int count = 0;
    for (const char* name : kNames) {
        const Libraries found = FindLibraries(name);
        for (std::size_t i = 0; i < found.count; ++i) {
            PushLibrary(L, name, found.rows[i]);
            lua_rawseti(L, -2, ++count);
        }
    }
    return 1;
}

// build_id(file_name): that of a loaded library in hexadecimal; nil if it has none or is not
// loaded.
int BuildId(lua_State* L)
{
    const Libraries found = FindLibraries(CheckBytes(L, 1));
    if (found.count == 0 || found.rows[0].build_id.empty()) return 0;
    PushHexadecimal(L, found.rows[0].build_id);
    return 1;
}

// [-0, +0, v]
void CheckVersion(lua_State* L, const char* name, unsigned int expected, unsigned int found)
{
    if (found == expected) return;
    luaL_error(L, "vxa was built for version %d of the interface of %s, not for version %d: %s",
               static_cast<int>(expected), name, static_cast<int>(found),
               FindLibraries(name).rows[0].path);
}

constexpr luaL_Reg kFunctions[] = {
    {"versions", Versions},
    {"build_id", BuildId},
    {nullptr, nullptr},
};

}  // namespace

void CheckLibraryVersions(lua_State* L)
{
    CheckVersion(L, "libvxi", VXI_ABI_VERSION, vxi_abi_version());
    CheckVersion(L, "libvxa_core", VxaCore::kAbiVersion, VxaCore::AbiVersion());
}

void OpenVersions(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
