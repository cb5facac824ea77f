// Zip archives: written, read back, and damaged ones refused.
#include "vxa_core/archive.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <wx/mstream.h>

#include <stdexcept>

#include "AllocationLimit.h"
#include "ScratchDirectory.h"
#include "vxa_core/archive_reader.h"

namespace {

using VxaCore::CZipOutputStream;
using VxaCore::Host::ListArchive;
using VxaCore::Host::ReadArchiveEntry;

bool Add(CZipOutputStream& zip, const wxString& name, const std::string& bytes, bool text)
{
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return zip.AddFromStream(in, text, name, L"");
}

// Returns the error of listing, or of reading the entry if one is given, without the path.
std::string Error(const std::string& path, const char* entry = nullptr)
{
    try {
        entry ? ReadArchiveEntry(path, entry, 1 << 20).size() : ListArchive(path).size();
    } catch (const std::runtime_error& error) {
        return std::string(error.what()).substr(path.size());
    }
    return "";
}

const char* const kNotAnArchive = ": not a zip archive, or only part of one";

// The first entry's record in the directory, the record at the end, the first entry's header, and
// the record after its data; APPNOTE 4.3.
enum Place { kDirectory, kEnd, kHeader, kTrailer };

const struct {
    Place place;
    std::size_t offset;
    std::string bytes;
    const char *listing, *reading;  // errors
} kDamages[] = {
    {kDirectory, 8, "\x01", "", ": entry a.txt is encrypted"},
    {kDirectory, 10, "\x0c", "", ": entry a.txt uses an unknown compression method (12)"},
    {kTrailer, 4, "zzzz", "", ": entry a.txt is damaged"},  // the checksum
    {kDirectory, 24, "\xf0\xff\xff\xff", "", ": entry a.txt has more than 1048576 bytes"},
    {kDirectory, 24, {"\x0a\0\0\0", 4}, "", ": entry a.txt is damaged: longer than declared"},
    {kDirectory, 24, {"\xff\xff\x07\0", 4}, "", ": entry a.txt is damaged"},
    {kHeader, 36, "\xff\xff\xff\xff", "", ": entry a.txt is damaged"},
    {kEnd, 8, "\x50\xc3\x50\xc3", ": has more than 10000 entries", ": has more than 10000 entries"},
    {kEnd, 8, {"\x09\0\x09\0", 4}, ": damaged: only 2 of 9 entries can be listed", ""},
    {kEnd, 16, {"\xff\xff\xff\0", 4}, kNotAnArchive, kNotAnArchive},
};

TEST(Archive, IsReadBackAndDamageIsFound)
{
    const ScratchDirectory scratch;
    const std::string path = scratch.Path("a.zip"), pipe = scratch.Path("pipe");
    std::unique_ptr<CZipOutputStream> zip;
    // Until there is enough memory, each attempt fails.
    bool is_written = false;
    for (long n = allocations::AllowMalloc(-1) ? 0 : -1; !is_written; ++n) {
        allocations::AllowMalloc(n);
        try {
            zip = std::make_unique<CZipOutputStream>(CZipOutputStream::Archive::Create(path));
            is_written = Add(*zip, L"a.txt", std::string(200000, 'x'), true) &&
                         Add(*zip, L"\u00fc/\u4e2d", {"\0\xFF", 2}, false);
            zip->archive().Close();
        } catch (const std::exception&) {
            is_written = false;
        }
        ASSERT_EQ(allocations::LiftLimit(), !is_written) << n;
        if (!zip || zip->archive().Entries().empty()) continue;
        if (zip->archive().Entries().back().is_complete) continue;
        EXPECT_THROW(zip->archive().Close(), std::runtime_error) << n;
    }
    EXPECT_FALSE(Add(*zip, L"late", "", true));
    EXPECT_THROW(zip->archive().Close(), std::runtime_error);
    EXPECT_FALSE(zip->archive().Entries()[2].is_complete);

    const auto entries = ListArchive(path);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_TRUE(entries[0].text && entries[0].bytes == 200000 && entries[0].packed_bytes < 2000);
    EXPECT_TRUE(!entries[1].text && entries[1].bytes == 2 && entries[1].name == "\u00fc/\u4e2d");
    EXPECT_EQ(ReadArchiveEntry(path, "a.txt", 200000), std::string(200000, 'x'));
    EXPECT_EQ(ReadArchiveEntry(path, "\u00fc/\u4e2d", 2), std::string("\0\xFF", 2));
    const std::string good = ReadText(path);
    const std::size_t places[] = {good.find("PK\1\2"), good.find("PK\5\6"), 0,
                                  good.find("PK\7\10")};
    for (const auto& damage : kDamages) {
        std::string bytes = good;
        bytes.replace(places[damage.place] + damage.offset, damage.bytes.size(), damage.bytes);
        WriteText(path, bytes);
        EXPECT_EQ(Error(path), damage.listing) << damage.reading;
        EXPECT_EQ(Error(path, "a.txt"), damage.reading);
    }
    for (const std::string& bytes : {std::string(), std::string(100000, 'x'), good.substr(0, 100),
                                     good.substr(0, good.size() - 1)}) {
        WriteText(path, bytes);
        EXPECT_EQ(Error(path), kNotAnArchive) << bytes.size();
    }
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(Error(pipe), ": not a regular file");
    EXPECT_THROW(CZipOutputStream::Archive::Create(pipe), std::runtime_error);
}

}  // namespace
