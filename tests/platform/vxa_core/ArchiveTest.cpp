#include <gtest/gtest.h>
#include <malloc.h>
#include <wx/mstream.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>

#include <cstdlib>
#include <map>
#include <memory>

#include "ScratchDirectory.h"
#include "vxa_core/archive.h"
#include "vxa_core/host.h"

namespace {

using VxaCore::CZipOutputStream;

bool Add(CZipOutputStream& zip, const std::string& bytes, const wxString& name, bool text = true,
         const wxString& comment = "")
{
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return zip.AddFromStream(in, text, name, comment);
}

struct Entry {
    std::string bytes;
    bool text;
    wxString comment;
};

std::map<wxString, Entry> ReadBack(const std::string& path)
{
    wxFileInputStream file(path);
    wxZipInputStream zip(file, wxConvUTF8);
    std::map<wxString, Entry> entries;
    while (const std::unique_ptr<wxZipEntry> entry{zip.GetNextEntry()}) {
        std::string bytes;
        char chunk[4096];
        while (const size_t got = zip.Read(chunk, sizeof chunk).LastRead())
            bytes.append(chunk, got);
        EXPECT_EQ(zip.GetLastError(), wxSTREAM_EOF) << entry->GetName();
        entries[entry->GetName()] = {bytes, entry->IsText(), entry->GetComment()};
    }
    return entries;
}

std::string Noise(size_t size)
{
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (char& c : bytes) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

TEST(Archive, IsReadBackAsWritten)
{
    const ScratchDirectory scratch;
    const std::string path = scratch.path("diag.zip");
    const std::map<wxString, Entry> wanted = {
        {"vxa_stats.txt", {"a\r\nb\n", true, ""}},
        {"empty.txt", {"", true, "nothing"}},
        {"vxa.tpf", {Noise(300000), false, ""}},
        {L"\u00fcber/\u4e2d.txt", {std::string(1000000, 'x'), true, L"\u00e4 comment"}},
    };
    CZipOutputStream zip(CZipOutputStream::Archive::Create(path));
    for (const auto& [name, entry] : wanted)
        EXPECT_TRUE(Add(zip, entry.bytes, name, entry.text, entry.comment));
    std::string error;
    const size_t open_bytes = mallinfo2().uordblks;
    EXPECT_TRUE(zip.archive().Close(error)) << error;
    const size_t closed_bytes = mallinfo2().uordblks;
    // Sanitizers keep no such count.
    EXPECT_TRUE(open_bytes == 0 || closed_bytes + 200000 < open_bytes)
        << open_bytes << " -> " << closed_bytes;
    EXPECT_TRUE(zip.archive().Close(error)) << error;
    EXPECT_FALSE(Add(zip, "late", "late.txt"));
    EXPECT_FALSE(zip.archive().Close(error));
    EXPECT_EQ(error, "the archive is closed");

    const auto read = ReadBack(path);
    ASSERT_EQ(read.size(), wanted.size());
    for (const auto& [name, entry] : wanted) {
        ASSERT_EQ(read.count(name), 1u) << name;
        EXPECT_EQ(read.at(name).bytes, entry.bytes);
        EXPECT_EQ(read.at(name).text, entry.text) << name;
        EXPECT_EQ(read.at(name).comment, entry.comment) << name;
    }
    if (std::system("command -v unzip >/dev/null") != 0)
        GTEST_SKIP() << "unzip is not installed: read back by wxWidgets alone";
    EXPECT_EQ(std::system(("unzip -tq " + path + " >/dev/null").c_str()), 0);
}

TEST(Archive, AFullDiskIsFoundAtOnceOrAtTheEnd)
{
    std::string error;
    CZipOutputStream small(CZipOutputStream::Archive::Create("/dev/full"));
    EXPECT_TRUE(Add(small, "still in the buffer", "a.txt"));
    EXPECT_FALSE(small.archive().Close(error));
    EXPECT_EQ(error, "cannot write /dev/full: No space left on device");

    CZipOutputStream large(CZipOutputStream::Archive::Create("/dev/full"));
    EXPECT_FALSE(Add(large, Noise(1000000), "a.bin", false));
    EXPECT_FALSE(Add(large, "", "b.txt"));
    EXPECT_FALSE(large.archive().Close(error));
    EXPECT_EQ(error, "cannot write /dev/full: No space left on device");
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
    CZipOutputStream zip(CZipOutputStream::Archive::Create(scratch.path("a.zip")));
    FailingInput broken;
    EXPECT_FALSE(zip.AddFromStream(broken, true, "broken.txt", ""));
    EXPECT_TRUE(Add(zip, "whole", "whole.txt"));
    std::string error;
    EXPECT_FALSE(zip.archive().Close(error));
    EXPECT_NE(error.find("entry broken.txt is incomplete"), std::string::npos) << error;
    EXPECT_EQ(ReadBack(scratch.path("a.zip"))["whole.txt"].bytes, "whole");
}

}  // namespace
