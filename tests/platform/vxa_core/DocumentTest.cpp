#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <thread>

#include "ScratchDirectory.h"
#include "vxa_core/document.h"
#include "vxa_core/files.h"
#include "vxa_core/host.h"

namespace {

using VxaCore::CDom;
using Store = VxaCore::CDom::Store;
using VxaCore::Host::DocumentValue;

std::vector<std::string> EventTexts(const Store& store)
{
    size_t unreadable = 0;
    std::vector<std::string> texts;
    for (const auto& event : store.Events(unreadable)) texts.push_back(event.text);
    return texts;
}

// Why the directory cannot be opened; empty when it can.
std::string OpenProblem(const std::string& path)
{
    try {
        Store::InDirectory(path);
    } catch (const std::runtime_error& problem) {
        return problem.what();
    }
    return "";
}

TEST(Event, ConversionsBeyondTheArgumentsAreText)
{
    CDom document(Store::InMemory());
    std::vector<std::string> stored;
    for (const char* text :
         {"GET_STATS|ffffffff (abc)", "%d", "%s%n%s", "100%", "", "\u00fc\U0001F600"}) {
        document.DoAgentEventWrite(1001, wxString::FromUTF8(text));
        stored.push_back(text);
    }
    document.DoAgentEventWrite(1001, "100%% %5.2f %%%");
    document.DoAgentEventWrite(1, "%d and %s", 5, "x");
    document.DoAgentEventWrite(1, L"%s, then %s", L"wide");
    document.DoAgentEventWrite(1, "%s %d %% %5.1f %s", wxString(L"\u00fc"));
    document.DoAgentEventWrite(1, "%*d|%d|%d", 4, 7);
    document.DoAgentEventWrite(1, "%n%d", 3);
    document.DoAgentEventWrite(1, "no conversion", 3);
    document.DoAgentEventWriteUtf8(1, "\xC3\xBC %d %d", 3);
    document.DoAgentEventWriteUtf8(1, "\xFC %s");
    document.DoAgentEventWriteUtf8(1, nullptr);
    for (const char* text :
         {"100% %5.2f %%", "5 and x", "wide, then %s", "\xC3\xBC %d % %5.1f %s", "   7|%d|%d",
          "%n3", "no conversion", "\xC3\xBC 3 %d", "\xC3\xBC %s", ""})
        stored.push_back(text);
    EXPECT_EQ(EventTexts(document.store()), stored);
}

TEST(Document, OpenRefusesWhatItWouldDestroyOrCannotUse)
{
    const ScratchDirectory scratch;
    const std::pair<const char*, const char*> cases[] = {
        {"{\n \"a\": tru }", "document.json: not valid JSON at line 2, column 7"},
        {"[1]", "holds no JSON object"},
        {" ", "not valid JSON at line 1, column 2"},
    };
    for (const auto& [document, reason] : cases) {
        WriteText(scratch.path("document.json"), document);
        EXPECT_NE(OpenProblem(scratch.path("")).find(reason), std::string::npos)
            << OpenProblem(scratch.path(""));
        EXPECT_EQ(ReadText(scratch.path("document.json")), document);
    }
    WriteText(scratch.path("file"), "");
    EXPECT_NE(OpenProblem(scratch.path("file/state")).find("file is not a directory"),
              std::string::npos);
    EXPECT_NE(OpenProblem("/proc/nothing/here").find("cannot make directory /proc/nothing"),
              std::string::npos);
}

TEST(Document, OpenRefusesFilesThatAreNone)
{
    const ScratchDirectory scratch;
    const std::string other = scratch.path("other");
    WriteText(other, "root:secret");
    const std::pair<const char*, void (*)(const char*, const char*)> kinds[] = {
        {": it is a symbolic link", [](auto from, auto to) { ASSERT_EQ(symlink(from, to), 0); }},
        {": it has more than one hard link",
         [](auto from, auto to) { ASSERT_EQ(link(from, to), 0); }},
        {": it is not a regular file", [](auto, auto to) { ASSERT_EQ(mkfifo(to, 0600), 0); }},
    };
    for (const char* name : {"lock", "events.jsonl", "document.json"})
        for (const auto& [reason, make] : kinds) {
            const std::string file = scratch.path("s/") + name;
            std::filesystem::remove_all(scratch.path("s"));
            std::filesystem::create_directory(scratch.path("s"));
            make(other.c_str(), file.c_str());
            const std::string problem = OpenProblem(scratch.path("s"));
            EXPECT_NE(problem.find(file + reason), std::string::npos) << problem;
            EXPECT_EQ(problem.find("secret"), std::string::npos) << problem;
            const std::string lock = scratch.path("s/lock");
            EXPECT_TRUE(file == lock || ReadText(lock).empty()) << "written before";
        }
    EXPECT_EQ(ReadText(other), "root:secret");
}

TEST(Document, ReplacesALeftoverWithoutFollowingIt)
{
    const ScratchDirectory scratch;
    const std::string document = scratch.path("document.json"), leftover = document + ".tmp";
    WriteText(scratch.path("other"), "untouched");
    const auto store = Store::InDirectory(scratch.path(""));
    for (const char* kind : {"link", "pipe", "directory"}) {
        std::string error;
        if (*kind == 'l') std::filesystem::create_symlink(scratch.path("other"), leftover);
        if (*kind == 'p') mkfifo(leftover.c_str(), 0600);
        if (*kind == 'd') std::filesystem::create_directory(leftover);
        EXPECT_TRUE(store->Set("a", std::string(kind), error)) << error;
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(leftover)));
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(document)));
    }
    EXPECT_EQ(ReadText(scratch.path("other")), "untouched");
}

TEST(Document, KeepsWhatOthersWroteIntoTheFile)
{
    const ScratchDirectory scratch;
    WriteText(scratch.path("document.json"), "{\"list\":[0.1,{\"x\":12345678901234567}],\"a\":1}");
    std::string error;
    {
        const auto store = Store::InDirectory(scratch.path(""));
        EXPECT_TRUE(std::holds_alternative<VxaCore::Host::NestedValue>(store->Get("list")));
        EXPECT_TRUE(store->Set("a", 2.0, error));
    }
    const std::string text = ReadText(scratch.path("document.json"));
    EXPECT_NE(text.find("[0.1, {"), std::string::npos) << text;
    EXPECT_NE(text.find("12345678901234568"), std::string::npos) << text;
}

TEST(Document, CutsOffAnUnfinishedEventAndCountsOtherLines)
{
    const std::string whole =
        "nonsense\n{\"time\":1.5,\"id\":3,\"text\":\"whole\"}\n{\"id\":3}\n\n";
    const std::string tails[] = {"", "{", "{\"time\":2.5,\"id\":4,\"text\":\"wh",
                                 std::string(40, '\0')};
    for (const std::string& tail : tails) {
        const ScratchDirectory scratch;
        WriteText(scratch.path("events.jsonl"), whole + tail);
        VxaCore::Host::CaptureLog(true);
        const auto store = Store::InDirectory(scratch.path(""));
        VxaCore::Host::CaptureLog(false);
        std::uint64_t dropped = 0;
        EXPECT_EQ(VxaCore::Host::TakeCaptured(dropped).size(), tail.empty() ? 0u : 1u);
        std::string error;
        EXPECT_TRUE(store->WriteEvent(5, "next", error)) << error;
        size_t unreadable = 0;
        const auto events = store->Events(unreadable);
        ASSERT_EQ(events.size(), 2u);
        EXPECT_EQ(events[0].text + " " + events[1].text, "whole next");
        EXPECT_EQ(unreadable, 3u);
        EXPECT_EQ(ReadText(scratch.path("events.jsonl")).find(whole + "{"), 0u);
    }
}

TEST(Document, OneOpenerAtATime)
{
    const ScratchDirectory scratch;
    auto first = Store::InDirectory(scratch.path("s"));
    EXPECT_NE(OpenProblem(scratch.path("s")).find("is in use by this process"), std::string::npos);
    const std::string parent = "is in use by process " + std::to_string(getpid()) + " (vxa_core";
    const pid_t child = fork();
    if (child == 0) _exit(OpenProblem(scratch.path("s")).find(parent) == std::string::npos);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    first.reset();
    EXPECT_EQ(OpenProblem(scratch.path("s")), "");
}

// No file may grow beyond a few bytes: what a full disk does, in the middle of a record.
class FullDisk {
public:
    FullDisk()
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{20, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &m_before); }

private:
    rlimit m_before;
};

TEST(Document, AFailedWriteIsKeptAndTriedAgain)
{
    const ScratchDirectory scratch;
    const std::string document = scratch.path("document.json");
    const auto store = Store::InDirectory(scratch.path(""));
    std::string error;
    {
        const FullDisk full;
        EXPECT_FALSE(store->WriteEvent(1, "first", error));
        EXPECT_NE(error.find("events.jsonl: File too large"), std::string::npos) << error;
        EXPECT_EQ(ReadText(scratch.path("events.jsonl")), "");
        EXPECT_FALSE(store->Set("a", std::string("longer than the disk"), error));
        EXPECT_NE(error.find("document.json.tmp: File too large"), std::string::npos) << error;
        EXPECT_FALSE(std::filesystem::exists(document + ".tmp"));
    }
    EXPECT_EQ(EventTexts(*store), std::vector<std::string>{"first"});
    EXPECT_EQ(std::get<std::string>(store->Get("a")), "longer than the disk");
    EXPECT_TRUE(store->WriteEvent(2, "second", error)) << error;
    EXPECT_EQ(EventTexts(*store), (std::vector<std::string>{"first", "second"}));
    std::filesystem::create_directory(document);  // nothing can be renamed over it
    EXPECT_FALSE(store->Set("b", true, error));
    EXPECT_NE(error.find("cannot replace " + scratch.path("")), std::string::npos) << error;
    std::filesystem::remove(document);
    EXPECT_TRUE(store->Set("b", true, error)) << error;
    EXPECT_NE(ReadText(document).find("longer"), std::string::npos);
}

TEST(Document, WritesThatCannotFailAreLoggedWhenItIsClosed)
{
    CDom document(Store::InMemory());
    std::string error;
    EXPECT_TRUE(document.store().Close(error));
    VxaCore::Host::CaptureLog(true);
    document.Set("a", false);
    document.DoAgentEventWrite(1001, "lost? %d");
    VxaCore::Host::CaptureLog(false);
    std::uint64_t dropped = 0;
    std::vector<std::string> messages;
    for (const auto& record : VxaCore::Host::TakeCaptured(dropped))
        messages.push_back(record.message);
    EXPECT_EQ(messages,
              (std::vector<std::string>{
                  "host document: a not stored: the document is closed",
                  "host document: event 1001 not stored (the document is closed): lost? %d"}));
}

TEST(Document, WritersOnManyThreadsLoseNothing)
{
    const ScratchDirectory scratch;
    CDom document(Store::InDirectory(scratch.path("")));
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer)
        writers.emplace_back([&, writer] {
            for (int i = 0; i < 20; ++i) {
                document.DoAgentEventWrite(writer, "%d", i);
                document.Set("k" + std::to_string(writer), i % 2 == 0);
            }
        });
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(EventTexts(document.store()).size(), 80u);
}

// The child tells after every call what must be there from now on.
[[noreturn]] void WriteUntilKilled(const std::string& path, int told_fd)
{
    CDom document(Store::InDirectory(path));
    std::string error;
    for (int number = 1;; ++number) {
        document.DoAgentEventWrite(number, std::string(200, 'e'));
        if (write(told_fd, &number, sizeof number) != sizeof number) _exit(1);
        if (!document.store().Set("number", double(number), error)) _exit(1);
    }
}

int LastTold(int fd)
{
    int number = 0;
    int last = 0;
    while (read(fd, &number, sizeof number) == sizeof number) last = number;
    return last;
}

TEST(Document, SurvivesBeingKilledAtAnyMoment)
{
    const ScratchDirectory scratch;
    std::mt19937 random(20240607);
    int total = 0;
    for (int round = 0; round < 40; ++round) {
        const std::string path = scratch.path("state" + std::to_string(round));
        int told[2];
        ASSERT_EQ(pipe(told), 0);
        const pid_t child = fork();
        if (child == 0) WriteUntilKilled(path, told[1]);
        close(told[1]);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const int last = LastTold(told[0]);
        close(told[0]);
        total += last;

        const auto store = Store::InDirectory(path);  // throws on half a document
        size_t unreadable = 0;
        const auto events = store->Events(unreadable);
        EXPECT_EQ(unreadable, 0u);
        ASSERT_GE(events.size(), size_t(last));
        ASSERT_LE(events.size(), size_t(last) + 1);
        for (size_t i = 0; i < events.size(); ++i) ASSERT_EQ(events[i].id, int(i) + 1);
        const DocumentValue number = store->Get("number");
        const double stored = std::holds_alternative<double>(number) ? std::get<double>(number) : 0;
        EXPECT_GE(stored, last - 1);
        EXPECT_LE(stored, last);
    }
    EXPECT_GT(total, 0) << "no round lasted long enough to write anything";
}

}  // namespace
