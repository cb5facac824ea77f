#include <gtest/gtest.h>

#include "vxa_core/document.h"

namespace {

using VxaCore::CDom;
using Store = VxaCore::CDom::Store;

TEST(Document, EventsAreFormattedAsFarAsArgumentsGo)
{
    CDom document(Store::InMemory());
    document.DoAgentEventWrite(1001, wxString::FromUTF8("GET|ff (\u00fc) %s%n%%"));
    document.DoAgentEventWrite(1, L"%s, then %s", L"wide");
    document.DoAgentEventWrite(1, "%s %d %% %5.1f %s", wxString(L"\u00fc"));
    document.DoAgentEventWrite(1, "%*d|%d|%d", 4, 7);
    document.DoAgentEventWrite(1, "%n%d", 3);
    document.DoAgentEventWrite(1, "%2$d %d", 3);
    document.DoAgentEventWriteUtf8(1, "\xC3\xBC %d %d", 3);
    document.DoAgentEventWriteUtf8(1, "\xFC %s");
    document.DoAgentEventWriteUtf8(1, nullptr);
    size_t unreadable = 0;
    std::vector<std::string> texts;
    for (const auto& event : document.store().Events(unreadable)) texts.push_back(event.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"GET|ff (\u00fc) %s%n%", "wide, then %s",
                                               "\u00fc %d % %5.1f %s", "   7|%d|%d", "%n3",
                                               "%2$d %d", "\u00fc 3 %d", "\u00fc %s", ""}));
}

}  // namespace
