// What a built file says about itself, compiled into each of them: `strings` finds "fc 1.0.0";
// `readelf -n`, crash reporters and vxa.versions() read the note, whose form is in
// https://systemd.io/ELF_PACKAGE_METADATA/. The linker's build ID is a note next to it.
#include <elf.h>

#define METADATA \
    R"({"type":"generic","name":")" IDENTITY_NAME R"(","version":")" IDENTITY_VERSION "\"}"

namespace {

[[gnu::used]] const char kIdentity[] = IDENTITY_NAME " " IDENTITY_VERSION;

struct Note {
    Elf32_Nhdr header;  // the same in 64-bit files
    char owner[4];
    char metadata[(sizeof METADATA + 3) / 4 * 4];
};

[[gnu::used, gnu::section(".note.package")]] alignas(4) const Note kNote = {
    {sizeof Note::owner, sizeof Note::metadata, 0xcafe1a7e}, "FDO", METADATA};

}  // namespace
