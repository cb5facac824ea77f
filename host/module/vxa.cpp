// Entry of the Lua module `vxa`: host objects and switches for scripts.
#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstring>

#include "HostObject.h"
#include "Module.h"
#include "vxa_core/host.h"

namespace vxa {

namespace {

// Document keys and event texts outside ASCII convert only under a UTF-8 locale, and
// numbers in settings are read with a point.
bool SetLocale()
{
    std::setlocale(LC_NUMERIC, "C");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ||
           std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
}

// A process may start without its standard streams. The next file opened would take
// their place and receive what is written to them: traces in a document's event log. Writing
// to standard output fails as before: its loss must not pass for success.
bool OccupyStandardDescriptors()
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        if (fcntl(stream, F_GETFD) < 0 &&
            open("/dev/null", stream == STDOUT_FILENO ? O_RDONLY : O_RDWR) < 0)
            return false;
    return true;
}

int OpenModule(lua_State* L)
{
    lua_newtable(L);
    RegisterOwners(L);
    OpenDocument(L);
    OpenArchive(L);
    OpenHandle(L);
    OpenEngine(L);
    OpenLog(L);
    OpenJson(L);
    open_pending_file(L);
    OpenSystem(L);
    OpenText(L);
    OpenSignals(L);
    OpenSettingsFile(L);
    OpenSimulatedMemory(L);
    lua_pushliteral(L, VXA_VERSION);
    lua_setfield(L, -2, "version");
    return 1;
}

}  // namespace

}  // namespace vxa

extern "C" __attribute__((visibility("default"))) int luaopen_vxa(lua_State* L)
{
    // Once a process: the second state may be on a thread of its own.
    static const bool kHasLocale = vxa::SetLocale();
    static const bool kHasStreams = vxa::OccupyStandardDescriptors();
    if (!kHasStreams) return luaL_error(L, "/dev/null cannot be opened: %s", std::strerror(errno));
    if (!kHasLocale) return luaL_error(L, "the locale C.UTF-8 is missing on this system");
    VxaCore::Host::TakeGeneralLog();
    return vxa::OpenModule(L);
}
