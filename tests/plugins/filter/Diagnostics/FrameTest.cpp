// Availability, failed calls as events, the print function.

#include <clocale>

#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "Fixture.h"

namespace {

using namespace Filter::Diagnostics;

using Frame = DiagnosticsTest;

TEST_F(Frame, AFailedCallIsOneEventAndOneTrace)
{
    const std::string long_name(70, 'N');
    const std::string error(79, 'e');
    const struct {
        std::string operation;
        int rc;
        std::string error;
        std::string text;
    } cases[] = {
        {"GET_STATS", -1, "abc", "GET_STATS|ffffffff (abc)"},
        {"GET_VARIABLE", -10017, "", "GET_VARIABLE|ffffd8df ()"},
        {"BLACKLIST_ADD", 5, "100 %s %n %", "BLACKLIST_ADD|00000005 (100 %s %n %)"},
        {"GET_STATS", 0x7fffffff, error + "cut off", "GET_STATS|7fffffff (" + error + ")"},
        {long_name, INT32_MIN, "x", long_name.substr(0, 64) + "|80000000 (x)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        driver::Answers answers;
        answers.error = c.error;
        Start(answers);
        const std::wstring operation(c.operation.begin(), c.operation.end());
        EXPECT_FALSE(ShowErrors(dom(), handle(), operation.c_str(), c.rc));
        EXPECT_EQ(Events(), Lines{"1001 " + c.text});
        EXPECT_EQ(Traces(), Lines{"408 ShowErrors: AgentWrite 1001 " + c.text});
        const auto calls = driver::TakeCalls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, "get_error");
        EXPECT_EQ(calls[0].bytes, std::string(80, '\0')) << "an empty buffer of 80 bytes";
    }
}

TEST_F(Frame, SuccessIsSilent)
{
    EXPECT_TRUE(ShowErrors(dom(), handle(), L"GET_STATS", 0));
    EXPECT_EQ(Events(), Lines{});
    EXPECT_EQ(Traces(), Lines{});
    EXPECT_TRUE(driver::TakeCalls().empty());
}

TEST_F(Frame, EventsAreUtf8WhereTheLocaleIs)
{
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    // The ends of every length; overlong, surrogate and lone bytes are taken as Latin-1.
    const std::string valid =
        "\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
    driver::Answers answers;
    answers.error = valid + "\xc1\xbf|\xe0\x9f\xbf|\xed\xa0\x80|\xf4\x90\x80\x80|\xc3";
    Start(answers);
    EXPECT_FALSE(ShowErrors(dom(), handle(), L"GET_STATS", -5));
    std::setlocale(LC_ALL, "C");
    const std::string text = "GET_STATS|fffffffb (" + valid +
                             "\xc3\x81\xc2\xbf|\xc3\xa0\xc2\x9f\xc2\xbf|\xc3\xad\xc2\xa0\xc2\x80|"
                             "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80|\xc3\x83)";
    EXPECT_EQ(Events(), Lines{"1001 utf8 " + text});
    EXPECT_EQ(Traces(), Lines{"408 ShowErrors: AgentWrite 1001 " + text});
}

TEST_F(Frame, TheDriverIsAskedOnceMoreForTheTrace)
{
    const struct {
        std::vector<int> available;
        bool traced;
        std::string trace;
        bool open;
    } cases[] = {
        {{1, 0}, true, "IsDriverOpen 1", false},
        {{0, 1}, true, "IsDriverOpen 0", true},
        {{-1, -1}, true, "IsDriverOpen -1", false},
        {{7, 7}, true, "IsDriverOpen 7", true},
        {{1, 0}, false, "", true},
        {{-2147483647 - 1}, false, "", false},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.statuses["driver_available"] = c.available;
        Start(answers);
        host::EnableTraces(c.traced);
        EXPECT_EQ(IsDriverOpen(handle()), c.open);
        EXPECT_EQ(driver::TakeCalls().size(), c.traced ? 2u : 1u);
        const auto traces = host::TakeTraces();
        ASSERT_EQ(traces.size(), c.traced ? 1u : 0u);
        if (!c.traced) continue;
        EXPECT_EQ(traces[0].line, 392);
        EXPECT_EQ(traces[0].function, "IsDriverOpen");
        EXPECT_EQ(traces[0].message, c.trace);
    }
}

TEST_F(Frame, APrintIsCutAt1023Characters)
{
    wxMemoryOutputStream memory;
    {
        wxTextOutputStream text(memory, wxEOL_NATIVE);
        tb_dump_s sink{tosprintf, &text};
        const std::string long_text(3000, 'x');
        tosprintf(&sink, "%d %s|%%\n", -5, "five");
        tosprintf(&sink, "%s", "");
        tosprintf(&sink, "%s", long_text.c_str());
        tosprintf(&sink, "%s", long_text.substr(0, 1023).c_str());
        tosprintf(&sink, "\n\n\xe9nd");
    }
    std::string bytes(memory.GetLength(), '\0');
    memory.CopyTo(bytes.data(), bytes.size());
    EXPECT_EQ(bytes, "-5 five|%\n" + std::string(2046, 'x') + "\n\n\xc3\xa9nd")
        << "Latin-1 becomes UTF-8";
}

}  // namespace
