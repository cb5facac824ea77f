// What the host core writes down: traces, the general log, events of documents.
#include <gtest/gtest.h>
#include <wx/init.h>
#include <wx/log.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <sstream>
#include <thread>

#include "ScratchDirectory.h"
#include "VxaCore/LogTrace.h"
#include "vxa_core/document.h"
#include "vxa_core/log.h"

namespace {

using namespace VxaCore;

// A log file for one test; everything off again afterwards.
class Log : public testing::Test {
protected:
    Log() { Host::LogTo(m_path); }
    ~Log() override
    {
        Host::SwitchTrace("*", false);
        Host::CaptureLog(false);
        Host::LogTo("");
    }
    const ScratchDirectory m_scratch;
    const std::string m_path = m_scratch.Path("log.jsonl");
};

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

TEST_F(Log, LatestMatchingSwitchDecides)
{
    // Switches as "+PATTERN" and "-PATTERN"; categories that are on and off then.
    for (const char* text : {
             "+filter : +filter -filters -filte -Filter",
             "+SysHealth.* : +SysHealth.eng +SysHealth. -SysHealth -VXI",
             "+SysHealth.* -SysHealth.scan +SysHealth.s* : +SysHealth.scan",
             "+a*b*c : +abc +aXbbYc +abcbc -abcb -ab",
             "+?XI : +VXI -XI -VVXI",
             "+a* -* : -a -ab",
         }) {
        Host::SwitchTrace("*", false);
        std::istringstream words(text);
        std::string word;
        while (words >> word && word != ":") Host::SwitchTrace(word.substr(1), word[0] == '+');
        while (words >> word)
            EXPECT_EQ(LogTraceIsEnabled(word.substr(1)), word[0] == '+') << text << " " << word;
    }
}

TEST_F(Log, EveryRecordIsAJsonLine)
{
    Host::SwitchTrace("Sys*", true);
    const wxString special(L"\u00fc\U0001F600\" \\ %n\t\n\x01\x7f\0|", 14);
    LogTrace("off", "file", 1, "function", "not written");
    LogTrace("Sys", "dir/file", 12, "f\xC3\x28\xC0\x80",
             special + wxUniChar(0xD800) + wxString('x', 20000));
    wxLogVerbose("not written");
    const std::regex time(R"(\{"time":1\d{9}\.\d{6},)");
    EXPECT_EQ(std::regex_replace(ReadText(m_path), time, "{"),
              R"({"kind":"trace","category":"Sys","file":"dir/file","line":12,"function":)"
              "\"f\uFFFD(\uFFFD\uFFFD\",\"message\":\"\u00fc\U0001F600"
              R"(\" \\ %n\t\n\u0001\u007f)"
              "\uFFFD|\uFFFD" +
                  std::string(20000, 'x') + "\"}\n");
}

TEST_F(Log, FourThreadsWriteWhileAnotherSwitches)
{
    constexpr int kRounds = 25;
    const std::string state = m_scratch.Path("state");
    Host::SwitchTrace("always", true);
    for (const int run : {1, 2}) {
        CDom document(CDom::Store::InDirectory(state));
        std::atomic<int> writing{4};
        std::thread writers[4];
        for (std::thread& writer : writers)
            writer = std::thread([&, key = "key" + std::to_string(&writer - writers)] {
                Host::InstallGeneralLog();
                for (int i = 0; i < kRounds; ++i) {
                    LogTrace("always", "file", i, "function", "-");
                    LogTrace("never", "file", i, "function", "-");
                    wxLogError("-");
                    document.Set(key, i % 2 == 0);
                    document.DoAgentEventWrite(i, "-");
                }
                --writing;
            });
        for (bool on = true; writing || on; on = !on) {
            Host::SwitchTrace("some*", on);
            Host::CaptureLog(on);
        }
        for (std::thread& writer : writers) writer.join();
        const std::string records = ReadText(m_path);
        EXPECT_EQ(std::count(records.begin(), records.end(), '\n'), run * 8 * kRounds);
        const std::regex whole(R"(\{"time":[^{}]*,"message":"-"\}\n)");
        EXPECT_EQ(std::regex_replace(records, whole, ""), "");
        document.store().Close();
        const auto reopened = CDom::Store::InDirectory(state);
        EXPECT_EQ(reopened->Events().events.size(), run * 4u * kRounds);
        EXPECT_TRUE(std::get<bool>(reopened->Get("key3")));
        // By default wxWidgets holds back the records of other threads once it is initialised.
        ASSERT_TRUE(wxInitialize());
        Host::InstallGeneralLog();
    }
}

TEST_F(Log, RecordsThatTheFileDoesNotTakeGoToStandardError)
{
    Host::SwitchTrace("VXI", true);
    EXPECT_THROW(Host::LogTo("/nonexistent/log"), std::runtime_error);
    wxLogError("to the previous file");
    EXPECT_NE(ReadText(m_path), "");
    testing::internal::CaptureStderr();
    for (const char* path : {"/dev/full", ""}) {
        Host::LogTo(path);
        LogTrace("VXI", "fc", 109, nullptr, "A/2  | M\x1b | B:10\n");
    }
    const std::string record = R"([0-9:.]{12} VXI fc:109 : A/2  \| M\\x1b \| B:10\n)";
    const std::string lost = R"(not in log file /dev/full \(No space left on device\): )";
    const std::string seen = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(seen, std::regex(lost + record + record))) << seen;
    // An unfinished last line does not spoil the next record.
    WriteText(m_path, "{\"time\":1,\"ki");
    Host::LogTo(m_path);
    wxLogError("next");
    EXPECT_NE(ReadText(m_path).find("ki\n{"), std::string::npos);
}

}  // namespace
