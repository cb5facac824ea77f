// Entry of the Lua module `vxa`: what scripts use where the agent would provide its own objects.
#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstring>

#include "Module.h"
#include "boundary/HostObject.h"
#include "vxa_core/log.h"

namespace vxa {

namespace {

// wxWidgets converts document keys and events outside ASCII only in a UTF-8 locale, and strtof(3)
// reads the settings' decimal points only with a numeric locale that has them.
bool SetLocale()
{
    std::setlocale(LC_NUMERIC, "C");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ||
           std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
}

// If the process was started without its standard streams, the next file opened would get their
// descriptors, and traces would be written to a document's events. Writing to standard output must
// still fail, so its descriptor is opened for reading only.
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
    OpenDocuments(L);
    OpenAppendFiles(L);
    OpenArchiveReaders(L);
    OpenArchiveWriters(L);
    OpenCharts(L);
    OpenChildProcesses(L);
    OpenDriverHandles(L);
    OpenReplays(L);
    OpenRotatedFiles(L);
    OpenTemporaryFiles(L);
    OpenDigests(L);
    OpenEngines(L);
    OpenFileSizeLimit(L);
    OpenFiles(L);
    OpenJsonValues(L);
    OpenLogs(L);
    OpenPrograms(L);
    OpenRedactions(L);
    OpenSignals(L);
    OpenSimulatedMemory(L);
    OpenSystem(L);
    OpenTerminalText(L);
    OpenVersions(L);
    lua_pushliteral(L, VXA_VERSION);
    lua_setfield(L, -2, "version");
    return 1;
}

}  // namespace

}  // namespace vxa

extern "C" __attribute__((visibility("default"))) int luaopen_vxa(lua_State* L)
{
    vxa::CheckLibraryVersions(L);
    // Once per process: another state may be on another thread.
    static const bool kHasLocale = vxa::SetLocale();
    static const bool kHasStreams = vxa::OccupyStandardDescriptors();
    if (!kHasStreams) return luaL_error(L, "/dev/null cannot be opened: %s", std::strerror(errno));
    if (!kHasLocale) return luaL_error(L, "the locale C.UTF-8 is missing on this system");
    VxaCore::Host::InstallGeneralLog();
    return vxa::OpenModule(L);
}
