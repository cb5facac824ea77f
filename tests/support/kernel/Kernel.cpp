#include "support/kernel/Kernel.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <thread>

namespace kernel {

pid_t Spawn(const std::function<void()>& body, pid_t (*make)())
{
    fflush(nullptr);
    const pid_t child = make();
    if (child != 0) {
        return child;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        body();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
    fflush(nullptr);
    // Not _exit: what the library does at exit is under test too.
    exit(testing::Test::HasFailure() ? 1 : 0);
}

void ExpectEnd(pid_t child, int expected)
{
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, expected) << "see the failures above";
}

void AwaitStop(pid_t child)
{
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status)) << "the child has ended";
}

void EnterNew()
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
    // The kernel makes the route of the address a little later.
    Run("ip link set lo up; timeout 10 sh -c 'until ip -6 route get ::1; do :; done' 2>&1");
}

void InOwn(const std::function<void()>& body)
{
    if (system("unshare -n sh -c 'ip link set lo up && nft list tables && command -v conntrack "
               "&& command -v ss' >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "needs root, nf_tables and the commands ip, nft, conntrack and ss";
    }
    ExpectEnd(Spawn([&] {
        EnterNew();
        body();
    }));
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
    return Run("printf %s \"$(nft list tables inet | cut -d ' ' -f 3 | xargs)\"");
}

Lines Matches(const std::string& text, const char* pattern)
{
    const std::regex regex(pattern);
    Lines lines;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        std::string line;
        for (const auto& group : std::set<std::string>(std::next(at->begin()), at->end())) {
            line += (line.empty() ? "" : " ") + group;
        }
        lines.insert(line);
    }
    return lines;
}

void BecomeNobody()
{
    ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
    ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
}

bool Eventually(const std::function<bool()>& done, unsigned seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool met = done();
    while (!met && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        met = done();
    }
    return met;
}

OpenHandle Open()
{
    EXPECT_EQ(vxi_engine_select("linux"), 0);
    OpenHandle handle(vxi_open());
    EXPECT_TRUE(handle) << vxi_open_error();
    return handle;
}

}  // namespace kernel
