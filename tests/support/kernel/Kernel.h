// What tests against the kernel do in network namespaces of their own.
#pragma once

#include <unistd.h>

#include <functional>
#include <set>
#include <string>

#include "host/driver/Fixture.h"

namespace kernel {

// Runs `body` in a child, which ends when `body` returns, and is killed when this process ends.
pid_t Spawn(const std::function<void()>& body, pid_t (*make)() = fork);
// Waits for its end; its expectations become the test's.
void ExpectEnd(pid_t child, int expected = 0);
// Waits until the child has stopped itself.
void AwaitStop(pid_t child);

// Moves this process into a new namespace, loopback up; runs `body` in a child that is there.
void EnterNew();
void InOwn(const std::function<void()>& body);

// Output of a command, which must succeed.
std::string Run(const std::string& command);

// Names of the inet tables of this namespace.
std::string Tables();

// For each match in `text` what its groups matched, in alphabetical order.
using Lines = std::multiset<std::string>;
Lines Matches(const std::string& text, const char* pattern);

void BecomeNobody();

// Polls until `done`; returns its last answer.
bool Eventually(const std::function<bool()>& done, unsigned seconds = 10);

// The driver on the engine of this machine.
OpenHandle Open();

}  // namespace kernel

// A test whose body runs in a network namespace of its own.
#define KERNEL_TEST(suite, name)    \
    static void suite##name();      \
    TEST(suite, name)               \
    {                               \
        kernel::InOwn(suite##name); \
    }                               \
    static void suite##name()
