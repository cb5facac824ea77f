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

TEST(Document, CutsOffAnUnfinishedEventAndCountsOtherLines)
{
    const std::string whole =
        "nonsense\n{\"time\":1.5,\"id\":3,\"text\":\"whole\"}\n{\"id\":3}\n\n";
    for (const std::string& tail :
         {std::string(), std::string("{\"time\":2.5,\"id\":4,\"te"), std::string(40, '\0')}) {
        const ScratchDirectory scratch;
        WriteText(scratch.path("events.jsonl"), whole + tail);
        const auto store = Store::InDirectory(scratch.path(""));
        std::string error;
        EXPECT_TRUE(store->WriteEvent(5, "next", error)) << error;
        size_t unreadable = 0;
        EXPECT_EQ(store->Events(unreadable).size(), 2u);
        EXPECT_EQ(unreadable, 3u);
        EXPECT_EQ(EventTexts(*store), (std::vector<std::string>{"whole", "next"}));
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

// Writes to the pipe after every call what must be there from now on.
[[noreturn]] void WriteUntilKilled(const std::string& path, int pipe_fd)
{
    CDom document(Store::InDirectory(path));
    std::string error;
    for (int number = 1;; ++number) {
        document.DoAgentEventWrite(number, std::string(200, 'e'));
        if (write(pipe_fd, &number, sizeof number) != sizeof number) _exit(1);
        if (!document.store().Set("number", double(number), error)) _exit(1);
    }
}

// The number of events that a process stored before it was killed.
int StoreUntilKilled(const std::string& path, int microseconds)
{
    int ends[2];
    if (pipe(ends) != 0) return 0;
    const pid_t child = fork();
    if (child == 0) WriteUntilKilled(path, ends[1]);
    close(ends[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    int last = 0;
    for (int number; read(ends[0], &number, sizeof number) == sizeof number;) last = number;
    close(ends[0]);
    return last;
}

TEST(Document, SurvivesBeingKilledAtAnyMoment)
{
    const ScratchDirectory scratch;
    std::mt19937 random(20240607);
    int total = 0;
    for (int round = 0; round < 40; ++round) {
        const std::string path = scratch.path("state" + std::to_string(round));
        const int last = StoreUntilKilled(path, static_cast<int>(random() % 40000));
        total += last;
        const auto store = Store::InDirectory(path);  // throws on half a document
        size_t unreadable = 0;
        const auto events = store->Events(unreadable);
        EXPECT_EQ(unreadable, 0u);
        EXPECT_TRUE(events.size() == size_t(last) || events.size() == size_t(last) + 1);
        for (size_t i = 0; i < events.size(); ++i) ASSERT_EQ(events[i].id, int(i) + 1);
        const DocumentValue number = store->Get("number");
        const double stored = std::holds_alternative<double>(number) ? std::get<double>(number) : 0;
        EXPECT_TRUE(stored == last || stored == last - 1) << stored << " of " << last;
    }
    EXPECT_GT(total, 0) << "no round lasted long enough to write anything";
}

}  // namespace
