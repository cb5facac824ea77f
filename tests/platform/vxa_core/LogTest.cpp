#include <gtest/gtest.h>
#include <unistd.h>
#include <wx/init.h>
#include <wx/log.h>

#include <atomic>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <thread>

#include "ScratchDirectory.h"
#include "VxaCore/LogTrace.h"
#include "vxa_core/host.h"

namespace {

using namespace VxaCore;

// Uses the log before main, and after it.
struct Outsider {
    const bool enabled_before_main = LogTraceIsEnabled("early");
    ~Outsider()
    {
        std::string error;
        if (!Host::LogTo("/dev/null", error)) _exit(96);
        Host::SwitchTrace("late", true);
        if (!LogTraceIsEnabled("late")) _exit(97);
        LogTrace("late", "file", 1, "function", "from a static destructor");
    }
};
const Outsider outsider;

// What follows the time in each line.
std::vector<std::string> Lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream text(ReadText(path));
    for (std::string line; std::getline(text, line);) {
        double time_s = 0;
        int end = 0;
        EXPECT_EQ(std::sscanf(line.c_str(), "{\"time\":%lf,%n", &time_s, &end), 1) << line;
        EXPECT_NEAR(time_s, time(nullptr), 60);
        lines.push_back(line.substr(end));
    }
    return lines;
}

std::vector<std::string> Words(const char* text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// A log file for one test; everything off again afterwards.
class LogTest : public testing::Test {
protected:
    LogTest()
    {
        std::string error;
        EXPECT_TRUE(Host::LogTo(m_path, error)) << error;
    }
    ~LogTest() override
    {
        std::string error;
        Host::SwitchTrace("*", false);
        Host::SetVerbose(false);
        Host::CaptureLog(false);
        EXPECT_TRUE(Host::LogTo("", error));
    }

    const ScratchDirectory m_scratch;
    const std::string m_path = m_scratch.path("log.jsonl");
};

TEST_F(LogTest, LatestMatchingSwitchDecides)
{
    // Switches as "+PATTERN" and "-PATTERN", and the categories that are on and off then.
    const char* const cases[][3] = {
        {"", "", "filter SysHealth.eng"},
        {"+filter", "filter", "filters filte Filter"},
        {"+SysHealth.*", "SysHealth.eng SysHealth.", "SysHealth VXI"},
        {"+* -VXI", "filter a", "VXI"},
        {"-VXI +*", "VXI", ""},
        {"+SysHealth.* -SysHealth.scan +SysHealth.s*", "SysHealth.scan", ""},
        {"+a*b*c", "abc aXbbYc abcbc", "abcb ab"},
        {"+?XI", "VXI", "XI VVXI"},
        {"+a* -*", "", "a ab"},
    };
    for (const auto& [switches, on, off] : cases) {
        SCOPED_TRACE(switches);
        Host::SwitchTrace("*", false);
        for (const std::string& pattern : Words(switches))
            Host::SwitchTrace(pattern.substr(1), pattern[0] == '+');
        for (const std::string& category : Words(on)) EXPECT_TRUE(LogTraceIsEnabled(category));
        for (const std::string& category : Words(off)) EXPECT_FALSE(LogTraceIsEnabled(category));
    }
    EXPECT_FALSE(outsider.enabled_before_main);
}

TEST_F(LogTest, EveryRecordIsAJsonLine)
{
    const std::string longest(20000, 'x');
    const std::pair<wxString, std::string> cases[] = {
        {"plain", "plain"},
        {L"\u00fc \u4e2d \U0001F600", "\xC3\xBC \xE4\xB8\xAD \xF0\x9F\x98\x80"},
        {"quote \" backslash \\ %s %n", R"(quote \" backslash \\ %s %n)"},
        {"tab\tline\n\x01\x1b[0m\x7f", R"(tab\tline\n\u0001\u001b[0m\u007f)"},
        {wxString("z\0z", 3), "z\xEF\xBF\xBDz"},
        {wxString(wxUniChar(0xD800)), "\xEF\xBF\xBD"},
        {longest, longest},
    };
    Host::SwitchTrace("SysHealth.*", true);
    std::vector<std::string> expected;
    for (const auto& [message, written] : cases) {
        LogTrace("SysHealth.eng", "plugins/filter/SystemHealth", 12, "f\xC3\x28", message);
        expected.push_back(
            R"("kind":"trace","category":"SysHealth.eng","file":"plugins/filter/SystemHealth",)"
            "\"line\":12,\"function\":\"f\xEF\xBF\xBD(\",\"message\":\"" +
            written + "\"}");
    }
    LogTrace("off", "file", 1, "function", "not written");
    wxLogError("error %d", 1);
    wxLogWarning("warning");
    wxLogMessage("message");
    wxLogInfo("info");
    wxLogGeneric(wxLOG_Status, "status");
    for (bool verbose : {false, true}) {
        Host::SetVerbose(verbose);
        wxLogVerbose("verbose %d", verbose);
        wxLogGeneric(wxLOG_Debug, "debug %d", verbose);
    }
    for (const auto& [level, message] : {std::pair("error", "error 1"),
                                         {"warning", "warning"},
                                         {"message", "message"},
                                         {"info", "info"},
                                         {"message", "status"},
                                         {"info", "verbose 1"},
                                         {"debug", "debug 1"}})
        expected.push_back(R"("kind":"log","level":")" + std::string(level) + R"(","message":")" +
                           message + "\"}");
    EXPECT_EQ(Lines(m_path), expected);
    LogTrace("SysHealth.eng", nullptr, 1, nullptr, "no names");
    EXPECT_EQ(Lines(m_path).size(), expected.size() + 1);
}

constexpr int kWriters = 4;
constexpr int kRecords = 300;

void WriteOnManyThreads()
{
    std::atomic<bool> done{false};
    std::thread switcher([&] {
        for (bool on = true; !done; on = !on) {
            Host::SwitchTrace("some*", on);
            Host::CaptureLog(on);
        }
    });
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer)
        writers.emplace_back([writer] {
            Host::TakeGeneralLog();
            for (int i = 0; i < kRecords; ++i) {
                LogTrace("always", "file", i, "function", wxString::Format("%d", writer));
                LogTrace("sometimes", "file", i, "function", "-");
                wxLogError("%d", writer);
            }
        });
    for (std::thread& writer : writers) writer.join();
    done = true;
    switcher.join();
}

TEST_F(LogTest, ManyWritersAndSwitchersAtOnce)
{
    Host::SwitchTrace("always", true);
    for (const int round : {1, 2}) {
        WriteOnManyThreads();
        int always = 0;
        int errors = 0;
        for (const std::string& line : Lines(m_path)) {
            ASSERT_EQ(line.back(), '}');
            always += line.find("\"category\":\"always\"") != line.npos;
            errors += line.find("\"level\":\"error\"") != line.npos;
        }
        EXPECT_EQ(always, round * kWriters * kRecords);
        EXPECT_EQ(errors, round * kWriters * kRecords);
        // By default wxWidgets keeps other threads' records once it is initialised.
        ASSERT_TRUE(wxInitialize());
        Host::TakeGeneralLog();
    }
    std::uint64_t dropped = 0;
    Host::TakeCaptured(dropped);
}

// Runs the calls and returns what they write to standard error.
template <typename Calls>
std::string StandardError(Calls&& calls)
{
    testing::internal::CaptureStderr();
    calls();
    return testing::internal::GetCapturedStderr();
}

TEST_F(LogTest, WhatNoFileTakesGoesToStandardError)
{
    std::string error;
    EXPECT_FALSE(Host::LogTo("/nonexistent/log", error));
    EXPECT_EQ(error, "cannot write log file /nonexistent/log: No such file or directory");
    wxLogError("to the former file");
    EXPECT_EQ(Lines(m_path).size(), 1u);
    ASSERT_TRUE(Host::LogTo("/dev/full", error)) << error;
    std::string seen = StandardError([] { wxLogError("does not fit"); });
    EXPECT_NE(seen.find("not in log file /dev/full (No space left on device)"), std::string::npos);
    EXPECT_NE(seen.find("error: does not fit\n"), std::string::npos) << seen;
    ASSERT_TRUE(Host::LogTo("", error));
    Host::SwitchTrace("VXI", true);
    seen = StandardError([] { LogTrace("VXI", "fc", 109, "handler", "A/2  | M\x1b | B:10\n"); });
    EXPECT_NE(seen.find(" VXI fc:109 handler: A/2  | M\\x1b | B:10\n"), std::string::npos) << seen;
    // A torn last line spoils no other.
    WriteText(m_path, "{\"time\":1,\"ki");
    ASSERT_TRUE(Host::LogTo(m_path, error));
    wxLogError("next");
    EXPECT_NE(ReadText(m_path).find("ki\n{"), std::string::npos);
}

}  // namespace
