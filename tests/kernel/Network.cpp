#include "Network.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
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

bool LoopbackUp()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

std::string Probe()
{
    int result[2];
    if (pipe(result) < 0) {
        return "pipes";
    }
    const pid_t child = fork();
    if (child == 0) {
        const char* lacking = unshare(CLONE_NEWNET) < 0 ? "permission to make network namespaces"
                              : !LoopbackUp()           ? "a loopback interface to bring up"
                              : system("nft list tables >/dev/null 2>&1") != 0
                                  ? "nf_tables with the nft command"
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
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
        ASSERT_TRUE(LoopbackUp());
        body();
    });
    child.ExpectGood();
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
