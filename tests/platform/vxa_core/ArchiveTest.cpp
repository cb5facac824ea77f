#include "vxa_core/archive.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <wx/mstream.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "ScratchDirectory.h"
#include "vxa_core/archive_reader.h"

namespace {

using VxaCore::CZipOutputStream;
using VxaCore::Host::ListArchive;
using VxaCore::Host::ReadArchiveEntry;

constexpr std::uint64_t kMuch = 1 << 20;
const std::string kText(6000, 'x');

bool Add(CZipOutputStream& zip, const std::string& bytes, const wxString& name, bool text = true,
         const wxString& comment = "")
{
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return zip.AddFromStream(in, text, name, comment);
}

// False and the reason in `error`.
bool Close(CZipOutputStream& zip, std::string& error)
{
    return zip.archive().Close(error);
}

std::string Noise(size_t size)
{
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (char& c : bytes) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

// What the reader complains about, without the path in front.
std::string Complaint(const std::function<void()>& call, const std::string& path)
{
    try {
        call();
    } catch (const std::runtime_error& failure) {
        const std::string message = failure.what();
        const size_t at = message.find(path);
        return at == std::string::npos ? message : message.substr(at + path.size());
    }
    return "";
}

TEST(Archive, IsReadBackAsWritten)
{
    const ScratchDirectory scratch;
    const std::string path = scratch.path("diag.zip");
    const struct {
        std::string name;
        std::string bytes;
        bool text;
        std::string comment;
    } wanted[] = {
        {"vxa_stats.txt", "a\r\nb\n", true, ""},
        {"empty.txt", "", true, "nothing"},
        {"vxa.tpf", Noise(300000), false, ""},
        {"\xC3\xBC/\xE4\xB8\xAD.txt", std::string(1000000, 'x'), true, "\xC3\xA4 comment"},
    };
    CZipOutputStream zip(CZipOutputStream::Archive::Create(path));
    for (const auto& entry : wanted)
        EXPECT_TRUE(Add(zip, entry.bytes, wxString::FromUTF8(entry.name), entry.text,
                        wxString::FromUTF8(entry.comment)));
    std::string error;
    const size_t open_bytes = mallinfo2().uordblks;
    EXPECT_TRUE(Close(zip, error)) << error;
    const size_t closed_bytes = mallinfo2().uordblks;
    // Sanitizers keep no such count.
    EXPECT_TRUE(open_bytes == 0 || closed_bytes + 200000 < open_bytes)
        << open_bytes << " -> " << closed_bytes;
    EXPECT_TRUE(Close(zip, error)) << error;
    EXPECT_FALSE(Add(zip, "late", "late.txt"));
    EXPECT_FALSE(Close(zip, error));
    EXPECT_EQ(error, "the archive is closed");

    const auto entries = ListArchive(path);
    const std::string file = ReadText(path);
    ASSERT_EQ(entries.size(), std::size(wanted));
    for (size_t i = 0; i < std::size(wanted); ++i) {
        EXPECT_EQ(entries[i].name, wanted[i].name);
        EXPECT_EQ(entries[i].bytes, wanted[i].bytes.size());
        EXPECT_LT(entries[i].packed_bytes, 301000u);
        EXPECT_EQ(entries[i].text, wanted[i].text) << wanted[i].name;
        EXPECT_EQ(ReadArchiveEntry(path, wanted[i].name, kMuch), wanted[i].bytes);
        EXPECT_NE(file.find(wanted[i].comment), std::string::npos) << wanted[i].name;
    }
    const auto read = [&](const char* name, std::uint64_t most) {
        return Complaint([&] { ReadArchiveEntry(path, name, most); }, path);
    };
    EXPECT_EQ(read("c", kMuch), ": has no entry c");
    EXPECT_EQ(read("vxa.tpf", 299999), ": entry vxa.tpf has more than 299999 bytes");
    if (std::system("command -v unzip >/dev/null") != 0)
        GTEST_SKIP() << "unzip is not installed: read back by wxWidgets alone";
    EXPECT_EQ(std::system(("unzip -tq " + path + " >/dev/null").c_str()), 0);
}

TEST(Archive, AFullDiskIsFoundAtOnceOrAtTheEnd)
{
    for (const bool at_once : {false, true}) {
        std::string error;
        CZipOutputStream zip(CZipOutputStream::Archive::Create("/dev/full"));
        EXPECT_EQ(Add(zip, at_once ? Noise(1000000) : "still in the buffer", "a"), !at_once);
        EXPECT_EQ(Add(zip, "", "b.txt"), !at_once);
        EXPECT_FALSE(Close(zip, error));
        EXPECT_EQ(error, "cannot write /dev/full: No space left on device");
    }
    EXPECT_THROW(CZipOutputStream::Archive::Create("/nonexistent/a.zip"), std::runtime_error);
}

class FailingInput : public wxInputStream {
protected:
    size_t OnSysRead(void*, size_t) override
    {
        m_lasterror = wxSTREAM_READ_ERROR;
        return 0;
    }
};

TEST(Archive, AFailingInputIsReportedAndTheRestKept)
{
    const ScratchDirectory scratch;
    const std::string path = scratch.path("a.zip");
    CZipOutputStream zip(CZipOutputStream::Archive::Create(path));
    FailingInput broken;
    EXPECT_FALSE(zip.AddFromStream(broken, true, "broken.txt", ""));
    EXPECT_TRUE(Add(zip, "whole", "whole.txt"));
    std::string error;
    EXPECT_FALSE(Close(zip, error));
    EXPECT_NE(error.find("entry broken.txt is incomplete"), std::string::npos) << error;
    EXPECT_EQ(ReadArchiveEntry(path, "whole.txt", kMuch), "whole");
}

// An archive of "a.txt" and "b.bin", as bytes.
std::string SmallArchive(const ScratchDirectory& scratch)
{
    CZipOutputStream zip(CZipOutputStream::Archive::Create(scratch.path("made.zip")));
    std::string error;
    EXPECT_TRUE(Add(zip, kText, "a.txt") && Add(zip, "abc", "b.bin", false) && Close(zip, error));
    return ReadText(scratch.path("made.zip"));
}

// Fields of the first entry's record in the directory, of the record at the end, of the
// first entry's own header, and of the record after its data; APPNOTE 4.3.
enum Place { kDirectory, kEnd, kHeader, kTrailer };

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
    {"wrong checksum", kTrailer, 4, "zzzz", "", ": entry a.txt is damaged"},
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

TEST(Archive, DamageIsFoundBeforeItCosts)
{
    const ScratchDirectory scratch;
    const std::string good = SmallArchive(scratch);
    const size_t places[] = {good.find("PK\1\2"), good.find("PK\5\6"), 0, good.find("PK\7\10")};
    const std::string path = scratch.path("damaged.zip");
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.what);
        std::string bytes = good;
        bytes.replace(places[damage.place] + damage.offset, damage.bytes.size(), damage.bytes);
        WriteText(path, bytes);
        EXPECT_EQ(Complaint([&] { ListArchive(path); }, path), damage.listing);
        EXPECT_EQ(Complaint([&] { ReadArchiveEntry(path, "a.txt", kMuch); }, path), damage.reading);
    }
}

TEST(Archive, OtherFilesAreRefused)
{
    const ScratchDirectory scratch;
    const std::string good = SmallArchive(scratch);
    const std::string path = scratch.path("x.zip");
    for (const std::string& bytes :
         {std::string(), std::string("hello"), std::string(100000, 'x'), good.substr(0, 100),
          good.substr(0, good.size() - 1), good.substr(good.size() - 60)}) {
        WriteText(path, bytes);
        EXPECT_EQ(Complaint([&] { ListArchive(path); }, path), ": no zip archive, or a part of one")
            << bytes.size();
    }
    WriteText(path, "PK\5\6" + std::string(18, '\0'));
    EXPECT_EQ(ListArchive(path).size(), 0u);

    const std::string pipe = scratch.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(Complaint([&] { ListArchive(pipe); }, pipe), " is not a file");
    EXPECT_EQ(Complaint([&] { ListArchive("none"); }, "none"), ": No such file or directory");
    EXPECT_THROW(CZipOutputStream::Archive::Create(pipe), std::runtime_error);
}

}  // namespace
