// Fixture of the diagnostics' tests: a driver that answers as configured, a document, and an
// archive whose entries are kept.
#pragma once

#include <memory>
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

    // From here on the driver answers so, and what came before is forgotten.
    void Start(const driver::Answers& answers, bool archive_refuses = false)
    {
        driver::SetAnswers(answers);
        driver::TakeCalls();
        host::TakeTraces();
        host::TakeEntries();
        host::RefuseEntries(archive_refuses);
        m_document = host::MakeDocument();
    }

    VxaCore::CDom* dom() const { return m_document.get(); }
    VxaCore::CZipOutputStream& zip() const { return *m_archive; }
    vxi_handle_ops_s* handle() const { return m_handle; }

    Lines Events() const { return host::Events(*m_document); }

    // "LINE FUNCTION: MESSAGE", but for those of the availability query. All must be of this
    // area.
    static Lines Traces()
    {
        Lines lines;
        for (const host::Record& trace : host::TakeTraces()) {
            EXPECT_EQ(trace.label, "diagnostics");
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
    std::unique_ptr<VxaCore::CZipOutputStream> m_archive = host::MakeArchive();
};
