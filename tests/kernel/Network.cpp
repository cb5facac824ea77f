#include "Network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace network {

namespace {

bool HasRoute(const std::string& v6)
{
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = 9;
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool has = inet_pton(AF_INET6, v6.c_str(), &address.sin6_addr) == 1 &&
                     connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return has;
}

std::string Probe()
{
    int result[2];
    if (pipe(result) < 0) {
        return "pipes";
    }
    const pid_t child = fork();
    if (child == 0) {
        const char* lacking =
            unshare(CLONE_NEWNET) < 0                      ? "permission to make network namespaces"
            : system("ip link set lo up 2>/dev/null") != 0 ? "the ip command (iproute2)"
            : system("nft list tables >/dev/null 2>&1") != 0 ? "nf_tables with the nft command"
                                                             : "";
        _exit(write(result[1], lacking, strlen(lacking)) < 0);
    }
    close(result[1]);
    char text[128] = "";
    const ssize_t size = read(result[0], text, sizeof text);
    close(result[0]);
    waitpid(child, nullptr, 0);
    return size > 0 ? "lacking " + std::string(text, static_cast<size_t>(size)) : "";
}

}  // namespace

const std::string& Lacking()
{
    static const std::string lacking = Probe();
    return lacking;
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
    EXPECT_TRUE(Eventually([] { return HasRoute("::1"); }));
}

void Configure(const std::string& interface, const std::string& v4, const std::string& v6)
{
    Run("ip link set " + interface + " up");
    Run("ip addr replace " + v4 + " dev " + interface);
    Run("ip -6 addr replace " + v6 + " dev " + interface + " nodad");
    // The kernel makes the address's route a little later.
    EXPECT_TRUE(Eventually([&] { return HasRoute(v6.substr(0, v6.find('/'))); })) << v6;
}

Child::Child(const std::function<void()>& body)
{
    fflush(nullptr);
    pid_ = fork();
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

void SetSysctl(const std::string& name, const std::string& value)
{
    std::ofstream file("/proc/sys/" + name);
    file << value << std::flush;
    EXPECT_TRUE(file.good()) << name;
}

}  // namespace network
