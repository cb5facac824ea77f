// Fixture of the health monitor's tests: every test starts from the tables as the module
// has them when it is loaded.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HostRecording.h"
#include "Sandbox.h"
#include "SystemHealth/SystemHealth.h"

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
        host::CatchLog();
        host::EnableTraces(true);
        host::TakeTraces();
        host::TakeLog();
    }
};

using Lines = std::vector<std::string>;
