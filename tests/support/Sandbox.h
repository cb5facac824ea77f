// A private view of the files and commands that the health monitor uses.
//
// The process moves into a mount namespace of its own in which /etc/vx_filter.conf,
// /proc/meminfo and /var/opt are the test's, and in which nproc, uptime and vmstat print
// what the test wrote. The product itself needs no switches for its tests.
#pragma once

#include <string>

namespace sandbox {

// Once per process, before it starts threads; later calls repeat the result. Empty on
// success, else what this machine lacks. Inherited by children.
const std::string& Enter();

// Each replaces what the product will find; null removes the file, or makes the command
// fail without output.
void SetOutput(const std::string& command, const char* text);
void SetMeminfo(const std::string& text);

void FakeMachine();  // an idle one: 4 processors, 25 % of the memory free

// "/var/opt/sandbox/NAME": NAME.out is the output of a command, NAME.args its arguments.
std::string Path(const std::string& name);

std::string Read(const std::string& path);

extern const char* const kConfigLog;  // as the product writes it

}  // namespace sandbox

// For tests that cannot run on this machine.
#define REQUIRE_SANDBOX() \
    if (const std::string& lacking = sandbox::Enter(); !lacking.empty()) GTEST_SKIP() << lacking
