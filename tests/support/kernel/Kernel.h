// Children, network namespaces and commands of tests against the kernel.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <string>

#include "host/driver/Fixture.h"

namespace kernel {

// Runs `body` in a child, which then ends, and which is killed when this process ends.
pid_t Spawn(const std::function<void()>& body, pid_t (*make)() = fork);

// Waits until the child has ended or stopped, with this status of wait(2). A failure in the child
// is one of this test.
void ExpectStatus(pid_t child, int expected = 0);
constexpr int kStopped = W_STOPCODE(SIGSTOP);

// Moves this process into a new network namespace; runs `body` in such a one, in a child.
void EnterNewNamespace();
void InNewNamespace(const std::function<void()>& body);

// Output of a command, which must succeed.
std::string Run(const std::string& command);

// Each match of `pattern` in `text`, as std::match_results::format writes it.
using Lines = std::multiset<std::string>;
Lines Matches(const std::string& text, const char* pattern, const char* format = "$1");

void BecomeNobody();

// Polls until `done`; returns its last answer.
bool Eventually(const std::function<bool()>& done, unsigned seconds = 10);

// The driver on the engine of this machine.
OpenHandle Open();

}  // namespace kernel

// A test whose body runs in a network namespace of its own; skipped where that is not possible.
#define KERNEL_TEST(suite, name)             \
    static void suite##name();               \
    TEST(suite, name)                        \
    {                                        \
        kernel::InNewNamespace(suite##name); \
    }                                        \
    static void suite##name()
