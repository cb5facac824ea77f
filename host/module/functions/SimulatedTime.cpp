// Simulated time, for rehearsals: vxa.simulate_time.
//
// A library calls those of the C library through addresses in its import table (ELF's global
// offset table). Those of the functions that read the system's clock are replaced there in every
// library that is loaded, so that neither a preload nor a privilege is needed, and the libraries
// are those that an agent runs.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "Module.h"
#include "boundary/Exceptions.h"

namespace vxa {

namespace {

constexpr std::int64_t kUsPerSecond = 1000000;
constexpr std::int64_t kNotSimulated = -1;

std::atomic<std::int64_t> s_now_us{kNotSimulated};  // since the epoch

// The functions replaced, from the libraries that a program would get them from.
decltype(&clock_gettime) s_clock_gettime = nullptr;
decltype(&gettimeofday) s_gettimeofday = nullptr;
decltype(&time) s_time = nullptr;

// ---- the replacements -------------------------------------------------------------------

int SimulatedClock(clockid_t clock, timespec* now)
{
    const std::int64_t now_us = s_now_us.load();
    const bool is_system_clock = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
    if (now_us == kNotSimulated || !is_system_clock) return s_clock_gettime(clock, now);
    *now = {now_us / kUsPerSecond, now_us % kUsPerSecond * 1000};
    return 0;
}

int SimulatedTimeOfDay(timeval* now, void* zone)
{
    const std::int64_t now_us = s_now_us.load();
    if (now_us == kNotSimulated) return s_gettimeofday(now, zone);
    *now = {now_us / kUsPerSecond, now_us % kUsPerSecond};
    return 0;
}

time_t SimulatedSeconds(time_t* result)
{
    const std::int64_t now_us = s_now_us.load();
    if (now_us == kNotSimulated) return s_time(result);
    if (result) *result = now_us / kUsPerSecond;
    return now_us / kUsPerSecond;
}

// Returns the replacement of a function, or null.
void* ReplacementOf(const char* name)
{
    if (std::strcmp(name, "clock_gettime") == 0) return reinterpret_cast<void*>(&SimulatedClock);
    if (std::strcmp(name, "gettimeofday") == 0) return reinterpret_cast<void*>(&SimulatedTimeOfDay);
    if (std::strcmp(name, "time") == 0) return reinterpret_cast<void*>(&SimulatedSeconds);
    return nullptr;
}

// ---- import tables ----------------------------------------------------------------------

#if defined(__x86_64__) || defined(__aarch64__)

#if defined(__x86_64__)
constexpr unsigned kCalled = R_X86_64_JUMP_SLOT, kTaken = R_X86_64_GLOB_DAT;
#else
constexpr unsigned kCalled = R_AARCH64_JUMP_SLOT, kTaken = R_AARCH64_GLOB_DAT;
#endif

// The addresses are integers in a library's headers.
template <typename T>
T* At(ElfW(Addr) address)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<T*>(address);
}

// What the loader uses of a library's dynamic section, which it has relocated.
struct Library {
    explicit Library(const dl_phdr_info& info);

    // Calls the function with each entry of the import table.
    template <typename Visit>
    void ForEachImport(Visit visit) const;

    ElfW(Addr) base;
    const char* strings = nullptr;
    const ElfW(Sym) * symbols = nullptr;
    struct Relocations {
        const ElfW(Rela) * first = nullptr;
        std::size_t bytes = 0;
    } calls, others;
    // The pages that are read-only once the loader is done.
    ElfW(Addr) protected_begin = 0, protected_end = 0;
};

Library::Library(const dl_phdr_info& info) : base(info.dlpi_addr)
{
    const auto page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    const ElfW(Dyn)* entry = nullptr;
    for (int i = 0; i < info.dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = info.dlpi_phdr[i];
        const ElfW(Addr) begin = base + segment.p_vaddr;
        if (segment.p_type == PT_DYNAMIC) entry = At<const ElfW(Dyn)>(begin);
        if (segment.p_type != PT_GNU_RELRO) continue;
        protected_begin = begin & ~(page - 1);
        protected_end = (begin + segment.p_memsz) & ~(page - 1);
    }
    for (; entry && entry->d_tag != DT_NULL; ++entry) {
        const ElfW(Addr) value = entry->d_un.d_ptr;
        switch (entry->d_tag) {
            case DT_STRTAB:
                strings = At<const char>(value);
                break;
            case DT_SYMTAB:
                symbols = At<const ElfW(Sym)>(value);
                break;
            case DT_JMPREL:
                calls.first = At<const ElfW(Rela)>(value);
                break;
            case DT_PLTRELSZ:
                calls.bytes = value;
                break;
            case DT_RELA:
                others.first = At<const ElfW(Rela)>(value);
                break;
            case DT_RELASZ:
                others.bytes = value;
                break;
            default:
                break;
        }
    }
}

template <typename Visit>
void Library::ForEachImport(Visit visit) const
{
    for (const Relocations& relocations : {calls, others}) {
        const auto* const end = relocations.first + relocations.bytes / sizeof(ElfW(Rela));
        for (const auto* relocation = relocations.first; relocation != end; ++relocation) {
            const auto type = ELF64_R_TYPE(relocation->r_info);
            if (type != kCalled && type != kTaken) continue;
            const ElfW(Sym)& symbol = symbols[ELF64_R_SYM(relocation->r_info)];
            visit(strings + symbol.st_name, At<void*>(base + relocation->r_offset));
        }
    }
}

// Returns 0 or an errno value. Other threads may be calling through the entry.
int SetImport(const Library& library, void** entry, void* function)
{
    if (__atomic_load_n(entry, __ATOMIC_ACQUIRE) == function) return 0;
    const auto page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    const auto address = reinterpret_cast<ElfW(Addr)>(entry);
    const bool is_protected = address >= library.protected_begin && address < library.protected_end;
    void* const begin = At<void>(address & ~(page - 1));
    if (is_protected && mprotect(begin, page, PROT_READ | PROT_WRITE) != 0) return errno;
    __atomic_store_n(entry, function, __ATOMIC_RELEASE);
    if (is_protected && mprotect(begin, page, PROT_READ) != 0) return errno;
    return 0;
}

// For dl_iterate_phdr(3); returns 0 or the errno value that ends it.
int ReplaceImports(dl_phdr_info* info, std::size_t, void*)
{
    int error_number = 0;
    const Library library(*info);
    library.ForEachImport([&](const char* name, void** entry) {
        if (void* const function = ReplacementOf(name); function && error_number == 0)
            error_number = SetImport(library, entry, function);
    });
    return error_number;
}

#else

// The relocations of other processors are not known here.
int ReplaceImports(dl_phdr_info*, std::size_t, void*)
{
    return ENOSYS;
}

#endif

// Whether the C library has the functions to replace.
bool FindFunctions()
{
    s_clock_gettime =
        reinterpret_cast<decltype(s_clock_gettime)>(dlsym(RTLD_DEFAULT, "clock_gettime"));
    s_gettimeofday =
        reinterpret_cast<decltype(s_gettimeofday)>(dlsym(RTLD_DEFAULT, "gettimeofday"));
    s_time = reinterpret_cast<decltype(s_time)>(dlsym(RTLD_DEFAULT, "time"));
    return s_clock_gettime && s_gettimeofday && s_time;
}

// Returns 0 or an errno value.
int TakeClock()
{
    // Once: afterwards, other threads may be in the replacements.
    static const bool kIsFound = FindFunctions();
    return kIsFound ? dl_iterate_phdr(ReplaceImports, nullptr) : ENOSYS;
}

// simulate_time([seconds])
int SimulateTime(lua_State* L)
{
    constexpr lua_Number kLatest = 4102444800;  // the year 2100
    const bool is_real = lua_isnoneornil(L, 1);
    const lua_Number seconds = is_real ? 0 : luaL_checknumber(L, 1);
    luaL_argcheck(L, seconds >= 0 && seconds <= kLatest, 1, "seconds since the epoch expected");
    if (const int error_number = is_real ? 0 : TakeClock())
        return PushSystemError(L, "the system's clock cannot be replaced", error_number);
    s_now_us.store(is_real ? kNotSimulated : std::llround(seconds * kUsPerSecond));
    lua_pushboolean(L, 1);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"simulate_time", SimulateTime},
    {nullptr, nullptr},
};

}  // namespace

void OpenSimulatedTime(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
