// How the scan table lives and dies: with its process, beside others, without privilege.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"
#include "engines/linux/ScanMonitor.h"

namespace {

constexpr uint16_t port = 8080;
const vxi::ScanTarget inbound = {VXI_SCAN_INBOUND, port};
const traffic::Place local = traffic::Local(4, port);

std::string TableOf(pid_t process)
{
    return "vxi_scan_" + std::to_string(process);
}

bool NoTables()
{
    return network::Tables().empty();
}

void Start()
{
    const driver::Handle handle = driver::Open();
    ASSERT_EQ(driver::Monitor(handle, VXI_SCAN_INBOUND, port), 0) << driver::Error(handle);
}

uint64_t Opened()
{
    driver::Counters counters = {};
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, counters), 0) << driver::Error(handle);
    return counters[VXI_SCAN_NEW];
}

class ScanLife : public testing::Test {
protected:
    void SetUp() override { REQUIRE_NETWORK(); }
};

TEST_F(ScanLife, TableGoesWithAKilledProcess)
{
    network::InOwn([] {
        network::Signal ready;
        network::Child child([&] {
            Start();
            ready.Tell();
            pause();
        });
        ASSERT_TRUE(ready.Await());
        EXPECT_EQ(network::Tables(), TableOf(child.pid()));
        child.Kill();
        EXPECT_TRUE(network::Eventually(NoTables));
    });
}

// A child that only lives on, and never calls the library, must not keep the table either.
TEST_F(ScanLife, TableGoesThoughAForkedChildLivesOn)
{
    network::InOwn([] {
        network::Signal ready, done;
        network::Child parent([&] {
            Start();
            if (fork() == 0) {
                ready.Tell();
                _exit(done.Await() ? 0 : 1);
            }
            pause();
        });
        ASSERT_TRUE(ready.Await());
        EXPECT_EQ(network::Tables(), TableOf(parent.pid()));
        parent.Kill();
        // Sooner than the grandchild gives up waiting.
        EXPECT_TRUE(network::Eventually(NoTables, 5));
        done.Tell();
    });
}

TEST_F(ScanLife, TableGoesAtExit)
{
    network::InOwn([] {
        network::Child child([] { Start(); });
        child.ExpectGood();
        EXPECT_TRUE(network::Eventually(NoTables));
    });
}

// What a child of a fork sees, made by whatever means.
void ExpectNothingMonitored()
{
    driver::Counters unused;
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused), -ENOENT);
    EXPECT_EQ(driver::Error(handle), "engine linux: vxi_get_scan_metrics: no port is monitored");
}

TEST_F(ScanLife, ForkedChildStartsAnew)
{
    network::InOwn([] {
        Start();
        traffic::BeRefused(local, 3);
        const std::string parents = TableOf(getpid());
        network::Child child([&] {
            ExpectNothingMonitored();
            EXPECT_EQ(network::Tables(), parents);
            Start();
            EXPECT_EQ(network::Tables(), parents + " " + TableOf(getpid()));
            traffic::BeRefused(local, 2);
            EXPECT_TRUE(network::Eventually([] { return Opened() == 2; }));
        });
        child.ExpectGood();
        EXPECT_EQ(network::Tables(), parents);
        EXPECT_TRUE(network::Eventually([] { return Opened() == 5; }));
    });
}

// Fork handlers do not run here: the process number alone tells.
TEST_F(ScanLife, BareForkStartsAnew)
{
    network::InOwn([] {
        Start();
        traffic::BeRefused(local, 3);
        const pid_t child = _Fork();
        if (child == 0) {
            ExpectNothingMonitored();
            Start();
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(network::Eventually([] { return Opened() == 3; }));
    });
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

void BecomeNobody()
{
    ASSERT_EQ(setgid(65534), 0);
    ASSERT_EQ(setuid(65534), 0);
}

void ExpectPrivilegeMissing(const driver::Handle& handle, int status)
{
    EXPECT_EQ(status, -EPERM);
    const std::string wanted = ": nf_tables needs CAP_NET_ADMIN";
    const std::string text = driver::Error(handle);
    EXPECT_NE(text.find(wanted), std::string::npos) << text;
}

TEST_F(ScanLife, SaysWhatPrivilegeIsMissing)
{
    for (const auto drop : {BecomeNobody, DropNetAdmin}) {
        network::InOwn([drop] {
            drop();
            driver::Counters unused;
            const driver::Handle handle = driver::Open();
            EXPECT_EQ(vxi_driver_available(handle.get()), 1);
            ExpectPrivilegeMissing(handle, driver::Monitor(handle, VXI_SCAN_INBOUND, port));
            ExpectPrivilegeMissing(handle, driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused));
            vxi_capability_s row;
            EXPECT_EQ(vxi_capabilities(handle.get(), &row, 1), 7);
            EXPECT_STREQ(row.name, "scan-metrics");
            EXPECT_EQ(row.available, 0);
            EXPECT_STREQ(row.detail, "nf_tables needs CAP_NET_ADMIN");
        });
    }
}

TEST_F(ScanLife, SaysThatPrivilegeWasGivenUp)
{
    network::InOwn([] {
        driver::Counters unused;
        const driver::Handle handle = driver::Open();
        Start();
        DropNetAdmin();
        ExpectPrivilegeMissing(handle, driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused));
    });
}

TEST_F(ScanLife, CapabilitiesChangeNothing)
{
    network::InOwn([] {
        const driver::Handle handle = driver::Open();
        vxi_capability_s row;
        EXPECT_EQ(vxi_capabilities(handle.get(), &row, 1), 7);
        EXPECT_EQ(row.available, 1) << row.detail;
        EXPECT_TRUE(NoTables());
        Start();
        EXPECT_EQ(vxi_capabilities(handle.get(), &row, 1), 7);
        EXPECT_EQ(row.available, 1) << row.detail;
        EXPECT_NE(std::string(row.detail).find("port 8080 inbound"), std::string::npos);
        EXPECT_EQ(network::Tables(), TableOf(getpid()));
    });
}

TEST_F(ScanLife, SurvivesOthersFlush)
{
    network::InOwn([] {
        Start();
        traffic::BeRefused(local, 3);
        network::Run("nft flush ruleset");
        traffic::BeRefused(local, 3);
        EXPECT_TRUE(network::Eventually([] { return Opened() == 6; }));
    });
}

TEST_F(ScanLife, TakesAnotherNameWhereItsOwnIsTaken)
{
    network::InOwn([] {
        const std::string name = TableOf(getpid());
        network::Run("nft add table inet " + name);
        Start();
        EXPECT_EQ(network::Tables(), name + " " + name + "_1");
        traffic::BeRefused(local, 3);
        EXPECT_TRUE(network::Eventually([] { return Opened() == 3; }));
    });
}

TEST_F(ScanLife, ServesThreadsAtOnce)
{
    network::InOwn([] {
        const auto work = [](uint32_t direction) {
            for (int i = 0; i < 50; ++i) {
                driver::Counters counters;
                const driver::Handle handle = driver::Open();
                EXPECT_EQ(driver::Monitor(handle, direction, port), 0) << driver::Error(handle);
                // The other thread may have chosen its own direction since.
                const int status = driver::Fetch(handle, direction, port, counters);
                EXPECT_TRUE(status == 0 || status == -ENOENT) << driver::Error(handle);
            }
        };
        std::thread other(work, VXI_SCAN_OUTBOUND);
        work(VXI_SCAN_INBOUND);
        other.join();
        EXPECT_EQ(network::Tables(), TableOf(getpid()));
    });
}

// ---- kernels without the owner flag ----------------------------------------

vxi::ScanReading Read(vxi::ScanMonitor& monitor)
{
    vxi::ScanReading reading;
    const vxi::Outcome outcome = monitor.get(inbound, reading);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    return reading;
}

TEST_F(ScanLife, WithoutOwnerRebuildsATableThatWasRemoved)
{
    network::InOwn([] {
        vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
        ASSERT_EQ(monitor.set(inbound).status, 0);
        traffic::BeRefused(local, 5);
        EXPECT_TRUE(network::Eventually(
            [&] { return Read(monitor).figures[VXI_SCAN_HALF_OPEN_CLOSED] == 5; }));
        network::Run("nft flush ruleset");

        const vxi::ScanReading rebuilt = Read(monitor);
        EXPECT_TRUE(rebuilt.rebuilt);
        for (const uint64_t figure : rebuilt.figures) {
            EXPECT_EQ(figure, 0u);
        }
        traffic::BeRefused(local, 2);
        EXPECT_TRUE(network::Eventually(
            [&] { return Read(monitor).figures[VXI_SCAN_HALF_OPEN_CLOSED] == 2; }));
        EXPECT_FALSE(Read(monitor).rebuilt);
    });
}

TEST_F(ScanLife, WithoutOwnerRemovesItsTableAtTheEnd)
{
    network::InOwn([] {
        vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
        ASSERT_EQ(monitor.set(inbound).status, 0);
        EXPECT_EQ(network::Tables(), TableOf(getpid()));
        network::Child child([&] { monitor.stop(); });
        child.ExpectGood();
        EXPECT_EQ(network::Tables(), TableOf(getpid())) << "a child took its parent's table";
        monitor.stop();
        EXPECT_TRUE(NoTables());
        EXPECT_EQ(monitor.set(inbound).status, -ESHUTDOWN);
    });
}

TEST_F(ScanLife, WithoutOwnerRemovesTablesOfTheDead)
{
    network::InOwn([] {
        network::Signal ready;
        network::Child killed([&] {
            vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
            EXPECT_EQ(monitor.set(inbound).status, 0);
            ready.Tell();
            pause();
        });
        ASSERT_TRUE(ready.Await());
        const std::string dead = TableOf(killed.pid());
        const std::string alive = TableOf(getppid());
        killed.Kill();
        network::Run("nft add table inet " + alive);
        network::Run("nft add table inet vxi_scan_");
        // Of an earlier process that had our number.
        network::Run("nft add table inet " + TableOf(getpid()));
        EXPECT_EQ(network::Tables(), dead + " " + alive + " vxi_scan_ " + TableOf(getpid()));
        {
            vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
            EXPECT_EQ(monitor.set(inbound).status, 0);
            EXPECT_EQ(network::Tables(), alive + " vxi_scan_ " + TableOf(getpid()));
        }
        EXPECT_EQ(network::Tables(), alive + " vxi_scan_");
    });
}

}  // namespace
