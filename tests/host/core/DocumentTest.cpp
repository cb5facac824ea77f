// Host documents: events as they are written, and several threads at once.
#include <gtest/gtest.h>

#include <thread>

#include "ScratchDirectory.h"
#include "vxa_core/document.h"

namespace {

using VxaCore::CDom;

TEST(Document, AnEventWithoutArgumentsIsWrittenAsItIs)
{
    CDom document(CDom::Store::InMemory());
    document.DoAgentEventWrite(1001, wxString::FromUTF8("GET|ff (\u00fc) %s%n%%"));
    document.DoAgentEventWriteUtf8(1, "\xC3\xBC %s%n");
    document.DoAgentEventWriteUtf8(1, "\xFC %s");
    document.DoAgentEventWriteUtf8(1, nullptr);
    document.DoAgentEventWriteUtf8(1, "%s, %d", L"wide", 3);
    std::string texts;
    for (const auto& event : document.store().Events().events) texts += event.text + "\n";
    EXPECT_EQ(texts, "GET|ff (\u00fc) %s%n%\n\u00fc %s%n\n\u00fc %s\n\nwide, 3\n");
}

TEST(Document, FourThreadsAtOnce)
{
    constexpr int kRounds = 40;
    const ScratchDirectory scratch;
    const std::string path = scratch.Path("state");
    CDom document(CDom::Store::InDirectory(path));
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([&document, key = "key" + std::to_string(&thread - threads)] {
            for (int round = 0; round < kRounds; ++round) {
                document.Set(key, round % 2 == 0);
                document.DoAgentEventWrite(round, "event");
                EXPECT_EQ(std::get<bool>(document.store().Get(key)), round % 2 == 0);
            }
        });
    for (std::thread& thread : threads) thread.join();
    document.store().Close();
    const auto reopened = CDom::Store::InDirectory(path);
    EXPECT_EQ(reopened->Events().events.size(), 4u * kRounds);
    EXPECT_EQ(std::get<bool>(reopened->Get("key3")), false);
}

}  // namespace
