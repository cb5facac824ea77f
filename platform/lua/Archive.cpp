// Diagnostic archives: vxa.ZipOutputStream and its methods.
#include "vxa_core/archive.h"
#include "HostObject.h"
#include "Module.h"
#include "VxaCore/ZipOutputStream.h"

namespace vxa {

namespace {

using VxaCore::CZipOutputStream;

CZipOutputStream& check_archive(lua_State* L)
{
    return check_host_object<CZipOutputStream>(L, 1, "SLB.wx.ZipOutputStream object expected");
}

int make_archive(lua_State* L)
{
    const char* path = check_path(L, 1);
    auto* owner = push_host_object<CZipOutputStream>(L);
    Failure failure;
    const bool made =
        guarded(failure, [&] { owner->make(CZipOutputStream::Archive::Create(path)); });
    return made ? 1 : push_failure(L, failure);
}

int archive_close(lua_State* L)
{
    CZipOutputStream& archive = check_archive(L);
    Failure failure;
    const bool closed = guarded(failure, [&] {
        std::string error;
        if (!archive.archive().Close(error)) failure.set(error);
    });
    return push_outcome(L, closed, failure);
}

}  // namespace

void open_archive(lua_State* L)
{
    register_holder<Owner<CZipOutputStream>>(L);
    SLB3::Register<CZipOutputStream>(L);
    lua_pushcfunction(L, make_archive);
    lua_setfield(L, -2, "ZipOutputStream");
}

}  // namespace vxa

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, archive)
{
    archive.set("close", vxa::archive_close);
}
