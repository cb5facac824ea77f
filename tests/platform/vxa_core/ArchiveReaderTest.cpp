#include "vxa_core/archive_reader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <wx/mstream.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "ScratchDirectory.h"
#include "vxa_core/archive.h"

namespace {

using VxaCore::CZipOutputStream;
using VxaCore::Host::ListArchive;
using VxaCore::Host::ReadArchiveEntry;

constexpr std::uint64_t kMuch = 1 << 20;
const std::string kText(6000, 'x');

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// An archive of "a.txt" and "b.bin", as bytes.
std::string Archive(const ScratchDirectory& scratch)
{
    const std::string path = scratch.path("made.zip");
    CZipOutputStream zip(CZipOutputStream::Archive::Create(path));
    wxMemoryInputStream text(kText.data(), kText.size());
    wxMemoryInputStream data("\0\1\2", 3);
    EXPECT_TRUE(zip.AddFromStream(text, true, "a.txt", ""));
    EXPECT_TRUE(zip.AddFromStream(data, false, L"\u00fc/b.bin", ""));
    std::string error;
    EXPECT_TRUE(zip.archive().Close(error)) << error;
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// What the reader says of the file, without the path in front.
std::string Complaint(const std::function<void()>& call, const std::string& path)
{
    try {
        call();
    } catch (const std::runtime_error& failure) {
        const std::string text = failure.what();
        const size_t at = text.find(path);
        return at == std::string::npos ? text : text.substr(at + path.size());
    }
    return "";
}

TEST(ArchiveReader, ReadsWhatWasWritten)
{
    const ScratchDirectory scratch;
    Archive(scratch);
    const std::string path = scratch.path("made.zip");
    const auto entries = ListArchive(path);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "a.txt");
    EXPECT_EQ(entries[0].bytes, kText.size());
    EXPECT_LT(entries[0].packed_bytes, 100u);
    EXPECT_TRUE(entries[0].text);
    EXPECT_EQ(entries[1].name, "ü/b.bin");
    EXPECT_FALSE(entries[1].text);
    EXPECT_EQ(ReadArchiveEntry(path, "a.txt", kText.size()), kText);
    EXPECT_EQ(ReadArchiveEntry(path, "ü/b.bin", kMuch), std::string("\0\1\2", 3));
    const auto read = [&](const char* name, std::uint64_t most) {
        return Complaint([&] { ReadArchiveEntry(path, name, most); }, path);
    };
    EXPECT_EQ(read("c", kMuch), ": has no entry c");
    EXPECT_EQ(read("a.txt", kText.size() - 1), ": entry a.txt has more than 5999 bytes");
}

// Fields of the first entry's record in the directory, of the record at the end, of the
// first entry's own header, and of the record behind its data; APPNOTE 4.3.
enum Place { kDirectory, kEnd, kHeader, kBehind };

struct Damage {
    const char* what;
    Place place;
    size_t offset;
    std::string bytes;
    std::string listing;  // complaints
    std::string reading;
};

const Damage kDamages[] = {
    {"encrypted", kDirectory, 8, "\x01", "", ": entry a.txt is encrypted"},
    {"unknown method", kDirectory, 10, "\x0c", "",
     ": entry a.txt is packed in an unknown way (12)"},
    {"wrong checksum", kBehind, 4, "zzzz", "", ": entry a.txt is damaged"},
    {"claims 4 GB", kDirectory, 24, "\xf0\xff\xff\xff", "",
     ": entry a.txt has more than 1048576 bytes"},
    {"claims less", kDirectory, 24, std::string("\x0a\0\0\0", 4), "",
     ": entry a.txt is damaged: longer than declared"},
    {"claims more", kDirectory, 24, std::string("\xff\x7f\0\0", 4), "", ": entry a.txt is damaged"},
    {"broken data", kHeader, 36, "\xff\xff\xff\xff", "", ": entry a.txt is damaged"},
    {"too many entries", kEnd, 8, "\x50\xc3\x50\xc3", ": has more than 10000 entries",
     ": has more than 10000 entries"},
    {"missing entries", kEnd, 8, std::string("\x09\0\x09\0", 4),
     ": damaged: only 2 of 9 entries can be listed", ""},
    {"directory elsewhere", kEnd, 16, "\xff\xff\xff\x00", ": no zip archive, or a part of one",
     ": no zip archive, or a part of one"},
};

TEST(ArchiveReader, FindsDamageBeforeItCosts)
{
    const ScratchDirectory scratch;
    const std::string good = Archive(scratch);
    const size_t places[] = {good.find("PK\1\2"), good.find("PK\5\6"), 0, good.find("PK\7\10")};
    const std::string path = scratch.path("damaged.zip");
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.what);
        std::string bytes = good;
        bytes.replace(places[damage.place] + damage.offset, damage.bytes.size(), damage.bytes);
        WriteFile(path, bytes);
        EXPECT_EQ(Complaint([&] { ListArchive(path); }, path), damage.listing);
        EXPECT_EQ(Complaint([&] { ReadArchiveEntry(path, "a.txt", kMuch); }, path), damage.reading);
    }
}

TEST(ArchiveReader, RefusesWhatIsNoArchive)
{
    const ScratchDirectory scratch;
    const std::string good = Archive(scratch);
    const std::string path = scratch.path("x.zip");
    for (const std::string& bytes :
         {std::string(), std::string("hello"), std::string(100000, 'x'), good.substr(0, 100),
          good.substr(0, good.size() - 1), good.substr(good.size() - 60)}) {
        WriteFile(path, bytes);
        EXPECT_EQ(Complaint([&] { ListArchive(path); }, path), ": no zip archive, or a part of one")
            << bytes.size();
    }
    WriteFile(path, "PK\5\6" + std::string(18, '\0'));
    EXPECT_EQ(ListArchive(path).size(), 0u);

    const std::string pipe = scratch.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(Complaint([&] { ListArchive(pipe); }, pipe), " is not a file");
    const std::string none = scratch.path("none");
    EXPECT_EQ(Complaint([&] { ListArchive(none); }, none), ": No such file or directory");
}

}  // namespace
