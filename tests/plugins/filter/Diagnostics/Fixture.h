// Fixture of the diagnostics' tests: a driver that answers as told, a document and an
// archive that remember.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Diagnostics/Diagnostics.h"
#include "HostRecording.h"
#include "RecordingDriver.h"

using Lines = std::vector<std::string>;

class DiagnosticsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::EnableTraces(true);
        Start({});
    }
    void TearDown() override { vxi_close(m_handle); }

    // From here on the driver answers so, and nothing is remembered of before.
    void Start(const driver::Answers& answers, const std::set<std::string>& refused = {})
    {
        driver::SetAnswers(answers);
        driver::TakeCalls();
        host::TakeTraces();
        m_document = host::MakeDocument();
        m_archive = host::MakeArchive(refused);
    }

    VxaCore::CDom* dom() const { return m_document.get(); }
    VxaCore::CZipOutputStream& zip() const { return *m_archive; }
    vxi_handle_ops_s* handle() const { return m_handle; }

    Lines Events() const { return host::TakeEvents(*m_document); }
    std::vector<host::Entry> Entries() const { return host::TakeEntries(*m_archive); }

    // "LINE FUNCTION: MESSAGE", but for those of the availability query. All must be of this
    // area.
    static Lines Traces()
    {
        Lines lines;
        for (const host::Trace& trace : host::TakeTraces()) {
            EXPECT_EQ(trace.category, "diagnostics");
            EXPECT_EQ(trace.file, "plugins/filter/Diagnostics");
            if (trace.function != "IsDriverOpen")
                lines.push_back(std::to_string(trace.line) + " " + trace.function + ": " +
                                trace.message);
        }
        return lines;
    }

    // The driver's calls without those that ask for availability, the error and the texts.
    static std::vector<driver::Call> Queries()
    {
        std::vector<driver::Call> queries;
        for (driver::Call& call : driver::TakeCalls())
            if (call.name.rfind("get_", 0) == 0 && call.name != "get_error")
                queries.push_back(std::move(call));
        return queries;
    }

private:
    vxi_handle_ops_s* m_handle = vxi_open();
    std::unique_ptr<VxaCore::CDom> m_document;
    std::unique_ptr<VxaCore::CZipOutputStream> m_archive;
};
