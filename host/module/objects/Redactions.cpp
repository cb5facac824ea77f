// Masking diagnostic packages: vxa.redaction and its methods.
#include <errno.h>
#include <unistd.h>
#include <wx/stream.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Module.h"
#include "VxaCore/ZipOutputStream.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/HostObject.h"
#include "boundary/Values.h"
#include "redaction/EntryMasker.h"
#include "redaction/MapFile.h"
#include "vxa_core/archive.h"
#include "vxa_core/archive_reader.h"

namespace vxa {

namespace {

using redaction::EntryMasker;
using redaction::Format;
using redaction::Pseudonyms;
using VxaCore::CZipOutputStream;
using VxaCore::Host::ArchiveEntry;
using VxaCore::Host::ArchiveReader;
using VxaCore::Host::FileError;

constexpr char kType[] = "vxa_redaction_t*";
constexpr std::uint64_t kMostEntryBytes = std::uint64_t{256} << 20;
constexpr std::size_t kChunkBytes = 65536;

// The formats as scripts name them, in the order of the enumeration.
constexpr const char* kFormats[] = {"text", "statistics", "blacklist", "json", "rules", nullptr};

struct Redaction {
    std::optional<Pseudonyms> pseudonyms;
    std::string map_path;  // empty if there is no map
    bool has_map = false;  // at that path, read from there
};

// Null if it could not be made.
using RedactionHolder = std::unique_ptr<Redaction>;

Redaction& CheckRedaction(lua_State* L)
{
    const auto& held = *static_cast<RedactionHolder*>(luaL_checkudata(L, 1, kType));
    if (!held) luaL_argerror(L, 1, "the redaction was not made");
    return *held;
}

Format CheckFormat(lua_State* L, int index)
{
    return static_cast<Format>(luaL_checkoption(L, index, nullptr, kFormats));
}

void ReadMap(Redaction& made)
{
    const std::optional<std::string> text = redaction::ReadMapFile(made.map_path);
    made.has_map = text.has_value();
    try {
        if (text)
            made.pseudonyms.emplace(*text);
        else
            made.pseudonyms.emplace(true);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(made.map_path + ": " + error.what());
    }
}

int MakeRedaction(lua_State* L)
{
    const char* map_path = lua_isnoneornil(L, 1) ? nullptr : CheckPath(L, 1);
    auto* held = new (lua_newuserdata(L, sizeof(RedactionHolder))) RedactionHolder();
    luaL_setmetatable(L, kType);
    const auto make = [&] {
        auto made = std::make_unique<Redaction>();
        made->map_path = map_path ? map_path : "";
        if (map_path)
            ReadMap(*made);
        else
            made->pseudonyms.emplace(false);
        *held = std::move(made);
    };
    return SucceedsOrPushError(L, make) ? 1 : kErrorResults;
}

// ---- copying an entry -------------------------------------------------------------------

// A line on the terminal that shows how far a large entry is, like that of
// lua/vxa/output/progress.lua.
class Progress {
public:
    Progress(const std::string& what, std::uint64_t total) : m_what(what), m_total(total) {}
    ~Progress()
    {
        if (m_isShown) Print("\r\033[K");
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Show(std::uint64_t done)
    {
        const Clock::time_point now = Clock::now();
        if (now < m_due || isatty(STDERR_FILENO) == 0) return;
        m_due = now + std::chrono::milliseconds(200);
        m_isShown = true;
        Print("\r" + m_what + ": " + std::to_string(done * 100 / m_total) + " %");
    }

private:
    using Clock = std::chrono::steady_clock;

    static void Print(const std::string& text) { std::fputs(text.c_str(), stderr); }

    std::string m_what;
    std::uint64_t m_total;
    Clock::time_point m_due = Clock::now() + std::chrono::seconds(2);
    bool m_isShown = false;
};

// An entry of an archive, masked while it is read.
class MaskedEntry : public wxInputStream {
public:
    MaskedEntry(ArchiveReader& reader, const ArchiveEntry& entry, Pseudonyms& pseudonyms,
                Format format)
        : m_reader(reader),
          m_masker(pseudonyms, format),
          m_progress((pseudonyms.IsCollecting() ? "reading " : "masking ") + entry.name,
                     entry.bytes),
          m_chunk(kChunkBytes)
    {
    }

    // Throws why reading failed, if it did.
    void CheckError() const
    {
        if (m_error) std::rethrow_exception(m_error);
    }

protected:
    // No exception may pass through wxWidgets' frames.
    std::size_t OnSysRead(void* buffer, std::size_t size) override
    {
        try {
            while (m_at == m_masked.size() && !m_isEnd) Refill();
        } catch (const std::exception&) {
            m_error = std::current_exception();
            m_lasterror = wxSTREAM_READ_ERROR;
            return 0;
        }
        const std::size_t copied = m_masked.copy(static_cast<char*>(buffer), size, m_at);
        m_at += copied;
        if (copied == 0) m_lasterror = wxSTREAM_EOF;
        return copied;
    }

private:
    void Refill()
    {
        if (const char* const signal = CaughtSignalName())
            throw FileError(EINTR, std::string("interrupted by ") + signal);
        const std::size_t got = m_reader.Read(m_chunk.data(), m_chunk.size(), kMostEntryBytes);
        m_isEnd = got == 0;
        m_read += got;
        if (!m_isEnd) m_progress.Show(m_read);
        m_masked.clear();
        m_at = 0;
        m_masker.Append(m_masked, {m_chunk.data(), got}, m_isEnd);
    }

    ArchiveReader& m_reader;
    EntryMasker m_masker;
    Progress m_progress;
    std::uint64_t m_read = 0;
    std::vector<char> m_chunk;
    std::string m_masked;
    std::size_t m_at = 0;
    bool m_isEnd = false;
    std::exception_ptr m_error;
};

// Calls the function with the entry of that name, which it masks while it is read.
template <typename Function>
void ReadMasked(Redaction& redaction, const char* path, std::string_view name, Format format,
                Function function)
{
    ArchiveReader reader(path);
    for (auto entry = reader.Next(); entry; entry = reader.Next()) {
        if (entry->name != name) continue;
        MaskedEntry masked(reader, *entry, *redaction.pseudonyms, format);
        function(masked);
        masked.CheckError();
        return;
    }
    throw FileError(ENOENT, std::string(path) + ": has no entry " + std::string(name));
}

// Collects networks while it lives. Nothing is masked meanwhile, so it must not outlive a failure.
class Collection {
public:
    explicit Collection(Pseudonyms& pseudonyms) : m_pseudonyms(pseudonyms)
    {
        m_pseudonyms.CollectNetworks(true);
    }
    ~Collection() { m_pseudonyms.CollectNetworks(false); }
    Collection(const Collection&) = delete;
    Collection& operator=(const Collection&) = delete;

private:
    Pseudonyms& m_pseudonyms;
};

// survey(path, name, format): finds the networks in an entry, before any is copied.
int Survey(lua_State* L)
{
    Redaction& redaction = CheckRedaction(L);
    const char* path = CheckPath(L, 2);
    const std::string_view name = CheckBytes(L, 3);
    const Format format = CheckFormat(L, 4);
    return PushSuccess(L, [&] {
        if (!redaction.pseudonyms->CanPin()) return;
        const Collection collection(*redaction.pseudonyms);
        ReadMasked(redaction, path, name, format, [](MaskedEntry& masked) {
            std::vector<char> chunk(kChunkBytes);
            while (masked.Read(chunk.data(), chunk.size()).LastRead() > 0) {
            }
        });
    });
}

// copy(path, name, format, archive): adds the first entry of that name in the archive at the path
// to another archive, masked.
int CopyMasked(lua_State* L)
{
    Redaction& redaction = CheckRedaction(L);
    const char* path = CheckPath(L, 2);
    const std::string_view name = CheckBytes(L, 3);
    const Format format = CheckFormat(L, 4);
    auto& archive =
        CheckHostObject<CZipOutputStream>(L, 5, "SLB.wx.ZipOutputStream object expected");
    return PushSuccess(L, [&] {
        ReadMasked(redaction, path, name, format, [&](MaskedEntry& masked) {
            const std::string utf8(name);
            const bool is_added =
                archive.archive().Add(masked, true, wxString::FromUTF8(utf8.c_str()), {});
            masked.CheckError();
            if (!is_added) throw FileError(EIO, "entry " + utf8 + " cannot be written");
        });
    });
}

// ---- the other methods ------------------------------------------------------------------

// mask(text, format): the masked text.
int Mask(lua_State* L)
{
    Redaction& redaction = CheckRedaction(L);
    const std::string_view text = CheckBytes(L, 2);
    const Format format = CheckFormat(L, 3);
    auto* masked = NewHolder<std::string>(L);
    CallOrRaise(L, [&] { EntryMasker(*redaction.pseudonyms, format).Append(*masked, text, true); });
    PushAndFree(L, *masked);
    return 1;
}

// reserve(name): masks this host's name and its parts wherever they are, even common words.
int Reserve(lua_State* L)
{
    Redaction& redaction = CheckRedaction(L);
    std::string_view name = CheckBytes(L, 2);
    CallOrRaise(L, [&] { redaction.pseudonyms->ReserveHost(name); });
    return 0;
}

// save(): writes the map, if there is one.
int Save(lua_State* L)
{
    Redaction& redaction = CheckRedaction(L);
    return PushSuccess(L, [&] {
        if (redaction.map_path.empty()) return;
        redaction::WriteMapFile(redaction.map_path, *redaction.pseudonyms, redaction.has_map);
        redaction.has_map = true;
    });
}

int Destroy(lua_State* L)
{
    static_cast<RedactionHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"copy", CopyMasked}, {"mask", Mask},     {"reserve", Reserve},
    {"save", Save},       {"survey", Survey}, {nullptr, nullptr},
};

}  // namespace

void OpenRedactions(lua_State* L)
{
    RegisterHolder<std::string>(L);
    RegisterClass(L, kType, kMethods, Destroy);
    lua_pushcfunction(L, MakeRedaction);
    lua_setfield(L, -2, "redaction");
}

}  // namespace vxa
