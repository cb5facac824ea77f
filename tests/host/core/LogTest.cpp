// The trace log and the general log: switches, records, threads, files that fail.
#include <gtest/gtest.h>
#include <wx/init.h>
#include <wx/log.h>

#include <atomic>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "ScratchDirectory.h"
#include "VxaCore/LogTrace.h"
#include "vxa_core/log.h"

namespace {

using namespace VxaCore;

// Returns each line without its time.
std::vector<std::string> Lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream text(ReadText(path));
    for (std::string line; std::getline(text, line);) {
        EXPECT_EQ(line.find("{\"time\":1"), 0u) << line;
        lines.push_back(line.substr(line.find(',') + 1));
    }
    return lines;
}

// A log file for one test; everything off again afterwards.
class LogTest : public testing::Test {
protected:
    LogTest() { Host::LogTo(m_path); }
    ~LogTest() override
    {
        Host::SwitchTrace("*", false);
        Host::LogTo("");
    }

    const ScratchDirectory m_scratch;
    const std::string m_path = m_scratch.Path("log.jsonl");
};

TEST_F(LogTest, LatestMatchingSwitchDecides)
{
    // Switches as "+PATTERN" and "-PATTERN"; categories that are on and off then.
    const char* const cases[] = {
        "+filter : +filter -filters -filte -Filter",
        "+SysHealth.* : +SysHealth.eng +SysHealth. -SysHealth -VXI",
        "+SysHealth.* -SysHealth.scan +SysHealth.s* : +SysHealth.scan",
        "+a*b*c : +abc +aXbbYc +abcbc -abcb -ab",
        "+?XI : +VXI -XI -VVXI",
        "+a* -* : -a -ab",
    };
    for (const char* text : cases) {
        Host::SwitchTrace("*", false);
        std::istringstream words(text);
        std::string word;
        while (words >> word && word != ":") Host::SwitchTrace(word.substr(1), word[0] == '+');
        while (words >> word)
            EXPECT_EQ(LogTraceIsEnabled(word.substr(1)), word[0] == '+') << text << " " << word;
    }
}

TEST_F(LogTest, EveryRecordIsAJsonLine)
{
    const std::string longest(20000, 'x');
    const std::pair<wxString, std::string> cases[] = {
        {L"\u00fc \u4e2d \U0001F600", "\u00fc \u4e2d \U0001F600"},
        {"quote \" backslash \\ %s %n", R"(quote \" backslash \\ %s %n)"},
        {"tab\tline\n\x01\x1b[0m\x7f", R"(tab\tline\n\u0001\u001b[0m\u007f)"},
        {wxString("z\0z", 3), "z\uFFFDz"},
        {wxString(wxUniChar(0xD800)), "\uFFFD"},
        {longest, longest},
    };
    Host::SwitchTrace("Sys*", true);
    std::vector<std::string> expected;
    for (const auto& [message, written] : cases) {
        LogTrace("Sys", "plugins/filter/SystemHealth", 12, "f\xC3\x28", message);
        expected.push_back(
            R"("kind":"trace","category":"Sys","file":"plugins/filter/SystemHealth",)"
            "\"line\":12,\"function\":\"f\uFFFD(\",\"message\":\"" +
            written + "\"}");
    }
    LogTrace("off", "file", 1, "function", "not written");
    constexpr std::pair<int, const char*> kLevels[] = {{wxLOG_Error, "error"},
                                                       {wxLOG_Warning, "warning"},
                                                       {wxLOG_Status, "message"},
                                                       {wxLOG_Info, "info"},
                                                       {wxLOG_Debug, "debug"}};
    for (const bool verbose : {true, false}) {
        Host::SetVerbose(verbose);
        for (const auto& [level, name] : kLevels) {
            wxLogGeneric(level, "%d", 1);
            expected.push_back(std::string(R"("kind":"log","level":")") + name +
                               R"(","message":"1"})");
        }
    }
    expected.pop_back();
    EXPECT_EQ(Lines(m_path), expected);
}

TEST_F(LogTest, ManyWritersAndSwitchersAtOnce)
{
    constexpr int kRecords = 300;
    Host::SwitchTrace("always", true);
    for (const int round : {1, 2}) {
        std::atomic<int> writing{4};
        const auto write = [&] {
            Host::InstallGeneralLog();
            for (int i = 0; i < kRecords; ++i) {
                LogTrace("always", "file", i, "function", "-");
                LogTrace("sometimes", "file", i, "function", "-");
                wxLogError("-");
            }
            --writing;
        };
        std::thread writers[4];
        for (std::thread& writer : writers) writer = std::thread(write);
        for (bool on = true; writing || on; on = !on) {
            Host::SwitchTrace("some*", on);
            Host::CaptureLog(on);
        }
        for (std::thread& writer : writers) writer.join();
        std::map<char, int> found;  // by the first letter of the category or level
        for (const std::string& line : Lines(m_path)) {
            ASSERT_EQ(line.back(), '}');
            ++found[line[line.find(':', line.find(',')) + 2]];
        }
        EXPECT_EQ(found['a'], round * 4 * kRecords);
        EXPECT_EQ(found['e'], round * 4 * kRecords);
        // By default wxWidgets keeps other threads' records once it is initialised.
        ASSERT_TRUE(wxInitialize());
        Host::InstallGeneralLog();
    }
}

TEST_F(LogTest, WhatNoFileTakesGoesToStandardError)
{
    Host::SwitchTrace("VXI", true);
    EXPECT_THROW(Host::LogTo("/nonexistent/log"), std::runtime_error);
    wxLogError("to the former file");
    EXPECT_EQ(Lines(m_path).size(), 1u);
    testing::internal::CaptureStderr();
    for (const char* path : {"/dev/full", ""}) {
        Host::LogTo(path);
        LogTrace("VXI", "fc", 109, nullptr, "A/2  | M\x1b | B:10\n");
    }
    const std::string record = R"(\d\d:\d\d:\d\d\.\d{3} VXI fc:109 : A/2  \| M\\x1b \| B:10\n)";
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
