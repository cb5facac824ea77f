#include "Network.h"

#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <utility>

namespace network {

namespace {

bool Succeeds(const std::string& command)
{
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The kernel makes the route of an address a little later.
void AwaitRoute(const std::string& v6)
{
    EXPECT_TRUE(Eventually([&] { return Succeeds("ip -6 route get " + v6); })) << v6;
}

}  // namespace

std::string Lacking(const std::string& tool)
{
    const std::pair<std::string, std::string> needed[] = {
        {"unshare -n true", "permission to make network namespaces"},
        {"unshare -n ip link set lo up", "the ip command (iproute2)"},
        {"unshare -n nft list tables", "nf_tables with the nft command"},
        {"command -v " + tool, "the command " + tool},
    };
    for (const auto& [command, what] : needed) {
        if (!Succeeds(command)) {
            return "lacking " + what;
        }
    }
    return "";
}

void InOwn(const std::function<void()>& body)
{
    Child child([&] {
        EnterNew();
        body();
    });
    child.ExpectGood();
}

void EnterNew()
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
    Run("ip link set lo up");
    AwaitRoute("::1");
}

void Configure(const std::string& interface, const std::string& v4, const std::string& v6)
{
    Run("ip link set " + interface + " up");
    Run("ip addr replace " + v4 + " dev " + interface);
    Run("ip -6 addr replace " + v6 + " dev " + interface + " nodad");
    AwaitRoute(v6.substr(0, v6.find('/')));
}

Child::Child(const std::function<void()>& body, pid_t (*make)())
{
    fflush(nullptr);
    pid_ = make();
    if (pid_ == 0) {
        try {
            body();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        fflush(nullptr);
        // Not _exit: what the library does at exit is under test too.
        exit(testing::Test::HasFailure() ? 1 : 0);
    }
}

Child::~Child()
{
    if (pid_ > 0) {
        Kill();
    }
}

void Child::Kill()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void Child::ExpectGood()
{
    int status = 0;
    ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the failures above";
}

Signal::Signal()
{
    if (pipe(ends_) < 0) {
        abort();
    }
}

Signal::~Signal()
{
    close(ends_[0]);
    close(ends_[1]);
}

void Signal::Tell()
{
    EXPECT_EQ(write(ends_[1], "", 1), 1);
}

bool Signal::Await()
{
    pollfd waiting = {ends_[0], POLLIN, 0};
    char byte;
    return poll(&waiting, 1, 10000) == 1 && read(ends_[0], &byte, 1) == 1;
}

std::string Run(const std::string& command)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "re");
    char line[512];
    while (pipe && fgets(line, sizeof line, pipe)) {
        output += line;
    }
    EXPECT_TRUE(pipe && pclose(pipe) == 0) << command;
    return output;
}

std::string Tables()
{
    std::istringstream lines(Run("nft list tables inet"));
    std::string names;
    for (std::string table, family, name; lines >> table >> family >> name;) {
        names += (names.empty() ? "" : " ") + name;
    }
    return names;
}

void BecomeNobody()
{
    ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
    ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
}

void DropNetAdmin()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
    data[0].effective &= ~(1u << CAP_NET_ADMIN);
    data[0].permitted &= ~(1u << CAP_NET_ADMIN);
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

bool Eventually(const std::function<bool()>& done, unsigned seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace network
