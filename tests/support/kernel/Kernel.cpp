// Children, network namespaces and commands of tests against the kernel.
#include "support/kernel/Kernel.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <regex>

namespace kernel {

pid_t Spawn(const std::function<void()>& body, pid_t (*make)())
{
    fflush(nullptr);
    const pid_t child = make();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        // Not _exit: what the library does at exit is under test too.
        exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

void ExpectStatus(pid_t child, int expected)
{
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_EQ(status, expected) << "see the failures above";
}

void EnterNewNamespace()
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << strerror(errno);
    // The kernel makes the route of the address a little later.
    Run("ip link set lo up; timeout 10 sh -c 'until ip -6 route get ::1; do :; done' 2>&1");
}

void InNewNamespace(const std::function<void()>& body)
{
    const std::pair<const char*, std::string> needs[] = {
        {"CAP_SYS_ADMIN to unshare the network namespace", "unshare -n true"},
        {"ip and ss of iproute2", "ip -V && ss -V"},
        {"nf_tables in the kernel and nft", "unshare -n nft list tables"},
        {"nf_conntrack_netlink in the kernel and conntrack", "unshare -n conntrack -L"}};
    for (const auto& [facility, command] : needs) {
        if (system(("(" + command + ") >/dev/null 2>&1").c_str()) != 0) {
            GTEST_SKIP() << "needs " << facility;
        }
    }
    ExpectStatus(Spawn([&] {
        EnterNewNamespace();
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

Lines Matches(const std::string& text, const char* pattern, const char* format)
{
    const std::regex regex(pattern);
    Lines lines;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        lines.insert(at->format(format));
    }
    return lines;
}

void BecomeNobody()
{
    ASSERT_TRUE(setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
}

bool Eventually(const std::function<bool()>& done, unsigned seconds)
{
    bool met = done();
    for (unsigned polls = seconds * 100; polls > 0 && !met; --polls) {
        usleep(10'000);
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
