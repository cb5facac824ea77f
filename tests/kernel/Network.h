// Network namespaces for tests, and what tests ask and do there.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace network {

// What this machine lacks to make namespaces with nf_tables in them and to run `tool` there;
// empty when nothing.
std::string Lacking(const std::string& tool);

// Runs `body` in a child process in a network namespace of its own, loopback up. What it
// expects and does not find fails the test.
void InOwn(const std::function<void()>& body);

// Moves this process into a new namespace, loopback up.
void EnterNew();

// Gives an interface two addresses, CIDR notation, usable at once, and brings it up.
void Configure(const std::string& interface, const std::string& v4, const std::string& v6);

// Runs `body` in a child process in this namespace; the child ends when `body` returns.
class Child {
public:
    explicit Child(const std::function<void()>& body, pid_t (*make)() = fork);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    void Kill();        // with SIGKILL, and waits for the end
    void ExpectGood();  // waits; its expectations become the test's

private:
    pid_t pid_;
};

// Waits until the other end has called Tell; false after ten seconds, or when it is gone.
class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void Tell();
    bool Await();

private:
    int ends_[2];
};

// Output of a command; a failure of the command fails the test.
std::string Run(const std::string& command);

// Names of the inet tables of this namespace, separated by blanks.
std::string Tables();

// From now on this process is somebody without privileges, or lacks CAP_NET_ADMIN.
void BecomeNobody();
void DropNetAdmin();

// Polls until `done`, ten seconds at most; returns its last answer.
bool Eventually(const std::function<bool()>& done, unsigned seconds = 10);

}  // namespace network

// For tests that cannot run on this machine.
#define REQUIRE_NETWORK(tool) \
    if (const auto lacking = network::Lacking(tool); !lacking.empty()) GTEST_SKIP() << lacking

// A test whose body runs in a network namespace of its own.
#define NETWORK_TEST(suite, name) NETWORK_TEST_WITH("nft", suite, name)

// The same, and the body needs `tool`.
#define NETWORK_TEST_WITH(tool, suite, name) \
    static void suite##name();               \
    TEST(suite, name)                        \
    {                                        \
        REQUIRE_NETWORK(tool);               \
        network::InOwn(suite##name);         \
    }                                        \
    static void suite##name()
