// How the scan table lives and dies: with its process, beside others, without privilege.
#include <unistd.h>

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

void ExpectCounter(unsigned counter, uint64_t expected)
{
    driver::Counters counters = {};
    network::Eventually([&] {
        const driver::Handle handle = driver::Open();
        EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, counters), 0)
            << driver::Error(handle);
        return counters[counter] == expected;
    });
    EXPECT_EQ(counters[counter], expected);
}

void ExpectOpened(uint64_t connections)
{
    ExpectCounter(VXI_SCAN_NEW, connections);
}

// Also with a child that only lives on, and never calls the library.
TEST(ScanLife, TableGoesWithAKilledProcess)
{
    REQUIRE_NETWORK("nft");
    for (const bool with_child : {false, true}) {
        network::InOwn([with_child] {
            network::Signal ready, done;
            network::Child parent([&] {
                Start();
                if (with_child && fork() == 0) {
                    ready.Tell();
                    _exit(done.Await() ? 0 : 1);
                }
                if (!with_child) {
                    ready.Tell();
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
}

// Fork handlers do not run in a bare one: the process number alone tells.
TEST(ScanLife, ForkedChildCountsThePortInATableOfItsOwn)
{
    REQUIRE_NETWORK("nft");
    for (const auto fork_now : {fork, _Fork}) {
        network::InOwn([fork_now] {
            Start();
            traffic::BeRefused(local, 3);
            const std::string parents = TableOf(getpid());
            const auto count_alone = [&] {
                EXPECT_EQ(network::Tables(), parents);
                ExpectOpened(0);
                EXPECT_EQ(network::Tables(), parents + " " + TableOf(getpid()));
                traffic::BeRefused(local, 2);
                ExpectOpened(2);
            };
            network::Child(count_alone, fork_now).ExpectGood();
            EXPECT_TRUE(network::Eventually([&] { return network::Tables() == parents; }));
            ExpectOpened(5);
        });
    }
}

NETWORK_TEST(ScanLife, EngineChosenLaterCountsTheSamePort)
{
    driver::Counters counters;
    ASSERT_EQ(vxi_engine_select("sim"), 0);
    const driver::Handle simulated(vxi_open());
    EXPECT_EQ(driver::Fetch(simulated, VXI_SCAN_INBOUND, port, counters), -ENOENT);
    ASSERT_EQ(driver::Monitor(simulated, VXI_SCAN_INBOUND, port), 0);
    ExpectOpened(0);
    EXPECT_EQ(network::Tables(), TableOf(getpid()));
    EXPECT_EQ(driver::Fetch(driver::Open(), VXI_SCAN_OUTBOUND, port, counters), -ENOENT);
}

NETWORK_TEST(ScanLife, CountsRefusalsAfterOthersResetTheCounters)
{
    const auto be_refused = [](unsigned count) {
        traffic::BeRefused(local, count);
        ExpectCounter(VXI_SCAN_HALF_OPEN_CLOSED, count);
    };
    Start();
    be_refused(9);
    network::Run("nft reset counters");
    ExpectCounter(VXI_SCAN_HALF_OPEN_CLOSED, 0);
    be_refused(4);
}

NETWORK_TEST(ScanLife, SaysThatPrivilegeWasGivenUp)
{
    driver::Counters unused;
    const driver::Handle handle = driver::Open();
    Start();
    network::DropNetAdmin();
    EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused), -EPERM);
    EXPECT_EQ(driver::Error(handle),
              "engine linux: vxi_get_scan_metrics: nf_tables needs CAP_NET_ADMIN");
}

NETWORK_TEST(ScanLife, CapabilitiesChangeNothing)
{
    const auto capability = [] {
        vxi_capability_s row;
        EXPECT_EQ(vxi_capabilities(driver::Open().get(), &row, 1), 7);
        EXPECT_EQ(row.available, 1) << row.detail;
        return std::string(row.detail);
    };
    capability();
    EXPECT_TRUE(NoTables());
    Start();
    EXPECT_NE(capability().find("port 8080 inbound"), std::string::npos);
    EXPECT_EQ(network::Tables(), TableOf(getpid()));
}

NETWORK_TEST(ScanLife, SurvivesOthersFlushAndName)
{
    const std::string name = TableOf(getpid());
    network::Run("nft add table inet " + name);
    Start();
    EXPECT_EQ(network::Tables(), name + " " + name + "_1");
    traffic::BeRefused(local, 3);
    network::Run("nft flush ruleset");
    EXPECT_EQ(network::Tables(), name + "_1");
    traffic::BeRefused(local, 3);
    ExpectOpened(6);
}

NETWORK_TEST(ScanLife, ServesThreadsAtOnce)
{
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
}

// ---- kernels without the owner flag ----------------------------------------

vxi::ScanReading Read(vxi::ScanMonitor& monitor)
{
    vxi::ScanReading reading;
    const vxi::Outcome outcome = monitor.get(inbound, reading);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    return reading;
}

NETWORK_TEST(ScanLife, WithoutOwnerRebuildsATableThatWasRemoved)
{
    vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
    ASSERT_EQ(monitor.set(inbound).status, 0);
    const auto be_refused = [&](unsigned count) {
        traffic::BeRefused(local, count);
        EXPECT_TRUE(network::Eventually(
            [&] { return Read(monitor).figures[VXI_SCAN_HALF_OPEN_CLOSED] == count; }));
    };
    be_refused(5);
    network::Run("nft flush ruleset");
    const vxi::ScanReading rebuilt = Read(monitor);
    EXPECT_TRUE(rebuilt.rebuilt);
    for (const uint64_t figure : rebuilt.figures) {
        EXPECT_EQ(figure, 0u);
    }
    be_refused(2);
    EXPECT_FALSE(Read(monitor).rebuilt);
}

NETWORK_TEST(ScanLife, WithoutOwnerRemovesItsTableAndThoseOfTheDead)
{
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
    const std::string own = TableOf(getpid());  // of an earlier process that had our number
    killed.Kill();
    for (const std::string& table : {alive, std::string("vxi_scan_"), own}) {
        network::Run("nft add table inet " + table);
    }
    EXPECT_EQ(network::Tables(), dead + " " + alive + " vxi_scan_ " + own);
    vxi::ScanMonitor monitor(vxi::TableLife::RemovedByUs);
    EXPECT_EQ(monitor.set(inbound).status, 0);
    EXPECT_EQ(network::Tables(), alive + " vxi_scan_ " + own);
    network::Child([&] { monitor.stop(); }).ExpectGood();
    EXPECT_EQ(network::Tables(), alive + " vxi_scan_ " + own) << "a child took its parent's table";
    monitor.stop();
    EXPECT_EQ(network::Tables(), alive + " vxi_scan_");
    EXPECT_EQ(monitor.set(inbound).status, -ESHUTDOWN);
}

}  // namespace
