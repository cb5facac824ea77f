// Fixtures of the health monitor's tests: every test starts from the tables as the module
// has them when it is loaded.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostRecording.h"
#include "Sandbox.h"
#include "SystemHealth/SystemHealth.h"

using Lines = std::vector<std::string>;

class HealthTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static const auto initial_config = vxa_syshealth_config;
        static const auto initial_vmstat = vxa_syshealth_vmstat_metrics;
        static const auto initial_metrics = health_metrics;
        vxa_syshealth_config = initial_config;
        vxa_syshealth_vmstat_metrics = initial_vmstat;
        health_metrics = initial_metrics;
        scan_rates = {};
        syshealth_enabled = 0;
        host::EnableTraces(true);
        host::TakeTraces();
        host::TakeLog();
    }

    // The texts traced since the last call, without the "CATEGORY FUNCTION: " that all of
    // them must have in front.
    static Lines TakeMessages(const std::string& front)
    {
        Lines messages;
        for (const host::Record& trace : host::TakeTraces()) {
            EXPECT_EQ(trace.label + " " + trace.function + ": ", front);
            EXPECT_EQ(trace.file, "plugins/filter/SystemHealth");
            messages.push_back(trace.message);
        }
        return messages;
    }
};

// On commands and files of the test's own.
class SandboxedHealthTest : public HealthTest {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        HealthTest::SetUp();
    }
};
