// Files that get their name when they are complete, on file systems with and without O_TMPFILE.
#include "vxa_core/pending_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <filesystem>
#include <set>

#include "ScratchDirectory.h"

static bool supports_tmpfile = true;

// Replaces the C library's function, for vxa_core too.
extern "C" __attribute__((visibility("default"))) int openat(int folder, const char* path,
                                                             int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const auto mode = va_arg(more, mode_t);
    va_end(more);
    if ((flags & O_TMPFILE) == O_TMPFILE && !supports_tmpfile) path = "/proc/none";
    return static_cast<int>(syscall(SYS_openat, folder, path, flags, mode));
}

namespace {

using VxaCore::Host::IfExists;
using VxaCore::Host::PendingFile;

class Pending : public testing::TestWithParam<bool> {
protected:
    Pending() { supports_tmpfile = GetParam(); }
    ~Pending() override { supports_tmpfile = true; }

    std::string Path(const std::string& name) const { return m_folder + name; }
    std::set<std::string> Folder() const
    {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder))
            names.insert(entry.path().filename());
        return names;
    }
    // Writes "new" and publishes the file; returns the error.
    static std::string Publish(PendingFile&& file, IfExists if_exists)
    try {
        EXPECT_EQ(write(file.Descriptor(), "new", 3), 3);
        file.Publish(if_exists);
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    std::string Write(const std::string& name, IfExists if_exists) const
    {
        return Publish(PendingFile(Path(name)), if_exists);
    }

    const ScratchDirectory m_scratch;
    const std::string m_folder = m_scratch.Path("folder/");
    const bool m_made = std::filesystem::create_directory(m_folder);
};

TEST_P(Pending, IsNamedWhenItIsComplete)
{
    // What killed processes left is removed, unless it is in use or not a file.
    for (const char* name : {"a.part1", "a.part2", "a.part4", "a.partx", "b.part1"})
        WriteText(Path(name), "left");
    std::filesystem::create_directory(Path("a.part3"));
    const int used = open(Path("a.part4").c_str(), O_RDONLY);
    ASSERT_EQ(flock(used, LOCK_EX), 0);
    EXPECT_EQ(Write("a", IfExists::kFail), "");
    EXPECT_EQ(ReadText(Path("a")), "new");
    EXPECT_EQ(std::filesystem::status(Path("a")).permissions(), std::filesystem::perms{0600});
    WriteText(Path("a"), "old");
    EXPECT_NE(Write("a", IfExists::kFail).find("a: File exists"), std::string::npos);
    EXPECT_EQ(ReadText(Path("a")), "old");
    EXPECT_EQ(Write("a", IfExists::kReplace), "");
    EXPECT_EQ(ReadText(Path("a")), "new");
    std::make_unique<PendingFile>(Path("never published")).reset();
    EXPECT_EQ(Folder(), (std::set<std::string>{"a", "a.part3", "a.part4", "a.partx", "b.part1"}));
    close(used);
    for (const IfExists if_exists : {IfExists::kFail, IfExists::kReplace})
        EXPECT_EQ(Write(std::string(255, 'n'), if_exists), "");
}

// Another user owns the folder and replaces everything in it by links.
TEST_P(Pending, NeverWritesThroughALink)
{
    const std::string victim = m_scratch.Path("victim");
    WriteText(victim, "kept");
    std::filesystem::create_symlink(victim, Path("link"));
    EXPECT_NE(Write("link", IfExists::kReplace), "");
    std::filesystem::remove(Path("link"));
    PendingFile file(Path("a"));
    for (const std::string& name : Folder()) {
        std::filesystem::rename(Path(name), Path("moved"));
        std::filesystem::create_symlink(victim, Path(name));
    }
    EXPECT_EQ(Publish(std::move(file), IfExists::kReplace).empty(), GetParam());
    EXPECT_EQ(ReadText(victim), "kept");
}

TEST_P(Pending, DoesNotReadTheFolder)
{
    constexpr uid_t kNobody = 65534;  // root may read every folder
    const uid_t user = geteuid();
    ASSERT_EQ(chmod(m_scratch.Path("").c_str(), 0755) + chmod(m_folder.c_str(), 0300), 0);
    const bool is_privileged = chown(m_folder.c_str(), kNobody, kNobody) == 0;
    ASSERT_EQ(is_privileged ? seteuid(kNobody) : 0, 0);
    EXPECT_EQ(Write("a", IfExists::kFail), "");
    ASSERT_EQ(is_privileged ? seteuid(user) : 0, 0);
    chmod(m_folder.c_str(), 0700);
    EXPECT_EQ(ReadText(Path("a")), "new");
}

INSTANTIATE_TEST_SUITE_P(FileSystems, Pending, testing::Bool());

}  // namespace
