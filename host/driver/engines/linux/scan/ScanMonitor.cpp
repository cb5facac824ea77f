#include "engines/linux/scan/ScanMonitor.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "api/Error.h"
#include "engines/linux/netlink/NfTables.h"

namespace vxi {

namespace {

constexpr unsigned kNamesMax = 8;
constexpr unsigned kRebuildsMax = 1;  // within one reading

const char* DirectionName(std::uint32_t direction)
{
    return direction == VXI_SCAN_OUTBOUND ? "outbound" : "inbound";
}

Outcome ended()
{
    return Failure(-ESHUTDOWN, "the process is ending");
}

Outcome SocketFailure(int status)
{
    if (status == -EPROTONOSUPPORT || status == -EAFNOSUPPORT) {
        return Failure(status, "%s", kNoNetfilterNetlink);
    }
    return Failure(status, "netfilter netlink socket: %s", DescribeStatus(status).c_str());
}

Outcome read_failure(int status)
{
    if (status == -EPERM) {
        return Failure(status, "%s", kNftNeedsPrivilege);
    }
    if (status == -EINTR) {
        return Failure(status, "the rules changed during each of six readings");
    }
    return Failure(status, "reading the nf_tables counters: %s", DescribeStatus(status).c_str());
}

bool IsDeadOrSelf(pid_t process)
{
    return process == getpid() || (kill(process, 0) < 0 && errno == ESRCH);
}

}  // namespace

ScanMonitor::ScanMonitor(TableLife life) : m_process(getpid()), m_life(life) {}

Outcome ScanMonitor::Set(const ScanTarget& target)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) {
        return ended();
    }
    if (m_running && *m_wanted == target) {
        return {};
    }
    TakeDown();
    m_wanted = target;
    return Build();
}

Outcome ScanMonitor::get(const ScanTarget& target, ScanReading& reading)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) {
        return ended();
    }
    if (!m_wanted) {
        return Failure(-ENOENT, "no port is monitored");
    }
    if (!(*m_wanted == target))
        return Failure(-ENOENT, "port %u %s is not monitored (port %u %s is)", target.port,
                       DirectionName(target.direction), m_wanted->port,
                       DirectionName(m_wanted->direction));
    return Read(reading);
}

Outcome ScanMonitor::Rehearse()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) {
        return ended();
    }
    if (m_running) {
        return {};
    }
    Netlink netlink;
    const ScanTarget any_port = {VXI_SCAN_INBOUND, 1};
    const ScanTableSpec owned = {ScanTableName(m_process, 0), any_port, 1, true};
    Loaded loaded = Load(NftBatch::Purpose::kRehearse, netlink, owned);
    if (!loaded.owner_unknown) {
        return loaded.outcome;
    }
    ScanTableSpec unowned = owned;
    unowned.owned = false;
    return Load(NftBatch::Purpose::kRehearse, netlink, unowned).outcome;
}

ScanStatus ScanMonitor::Status() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) {
        return {};
    }
    return {m_wanted, m_spec.half_open_timeout_s, m_halfOpen, m_uncounted};
}

std::string ScanMonitor::Description() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) {
        return "nf_tables, one table a process";
    }
    return "nf_tables table " + m_spec.name + ": port " + std::to_string(m_spec.target.port) + " " +
           DirectionName(m_spec.target.direction) + ", half-open for at most " +
           std::to_string(m_spec.half_open_timeout_s) + " s" +
           (m_spec.owned ? "" : " (this kernel knows no owner flag: removed at exit)");
}

void ScanMonitor::Stop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_process != getpid()) {
        return;
    }
    TakeDown();
    m_ended = true;
}

// One attempt to make the table.
ScanMonitor::Loaded ScanMonitor::Load(NftBatch::Purpose purpose, Netlink& netlink,
                                      const ScanTableSpec& spec) const
{
    std::uint32_t table = 0;
    try {
        netlink.Open(NETLINK_NETFILTER);
        NftBatch batch(netlink);
        table = AddScanTable(batch, spec);
        batch.Send(purpose);
        return {};
    } catch (const NftRefused& refused) {
        const int of_table = refused.Sequence() == table ? refused.Status() : 0;
        return {{refused.Status(), refused.what()},
                of_table == -EPERM || of_table == -EEXIST,
                spec.owned && (of_table == -EOPNOTSUPP || of_table == -EINVAL)};
    } catch (const Error& error) {
        return {SocketFailure(error.Status())};
    }
}

Outcome ScanMonitor::Build()
{
    const ScanTarget target = *m_wanted;
    Loaded loaded;
    unsigned attempt = 0;
    do {
        if (m_life == TableLife::kRemovedByUs) {
            RemoveLeftovers();
        }
        m_spec = {ScanTableName(m_process, attempt), target, HalfOpenTimeoutOf(target.direction),
                  m_life == TableLife::kWithSocket};
        loaded = Load(NftBatch::Purpose::kCommit, m_netlink, m_spec);
        if (loaded.owner_unknown) {
            m_life = TableLife::kRemovedByUs;
        }
        if (loaded.name_taken) {
            ++attempt;
        }
    } while (loaded.owner_unknown || (loaded.name_taken && attempt < kNamesMax));
    m_running = !loaded.outcome.Failed();
    m_halfOpen = 0;
    m_uncounted = 0;
    m_halfOpenClosed = {};
    return loaded.outcome;
}

Outcome ScanMonitor::Read(ScanReading& reading)
{
    reading = {};
    for (unsigned builds = 0;; ++builds) {
        if (!m_running) {
            const Outcome built = Build();
            if (built.Failed()) {
                return built;
            }
        }
        const int status = ReadTable(reading);
        if (status == 0) {
            return {};
        }
        const bool gone = status == -ENOENT;
        if (gone || !m_netlink.IsOpen()) {
            TakeDown();
        }
        if (!gone || builds == kRebuildsMax) {
            return read_failure(status);
        }
        reading.rebuilt = true;
    }
}

int ScanMonitor::ReadTable(ScanReading& reading)
{
    ScanCounterValues before;
    ScanCounterValues after;
    try {
        ReadScanCounters(m_netlink, m_spec.name, before);
        reading.half_open = CountHalfOpen(m_netlink, m_spec.name);
        ReadScanCounters(m_netlink, m_spec.name, after);
        ReadScanTraffic(m_netlink, m_spec.name, after);
    } catch (const Error& error) {
        return error.Status();
    }
    ScanFigures(after, m_halfOpenClosed.Update(before, reading.half_open, after), reading.figures);
    m_halfOpen = reading.half_open;
    const std::uint64_t uncounted = after[ScanCounter::kUncounted].packets;
    reading.uncounted = uncounted - (uncounted < m_uncounted ? 0 : m_uncounted);
    m_uncounted = uncounted;
    return 0;
}

// Nobody waits for this: a table that stays is removed by the next process.
void ScanMonitor::RemoveTable(const std::string& name)
try {
    if (!m_netlink.IsOpen()) {
        m_netlink.Open(NETLINK_NETFILTER);
    }
    NftBatch batch(m_netlink);
    AddTableRemoval(batch, name);
    batch.Send(NftBatch::Purpose::kCommit);
} catch (const std::exception&) {
}

void ScanMonitor::TakeDown()
{
    if (m_running && !m_spec.owned) {
        RemoveTable(m_spec.name);
    }
    m_running = false;
    m_netlink.Close();
}

// Tables that the kernel does not remove by itself, of processes that were killed. One that stays
// does no harm.
void ScanMonitor::RemoveLeftovers()
{
    if (m_leftoversRemoved) {
        return;
    }
    std::vector<std::string> names;
    const auto collect = [&](const nlmsghdr& message) {
        const Attributes table(message, sizeof(nfgenmsg));
        const auto name = DecodeString(table.Find(NFTA_TABLE_NAME));
        const auto flags = DecodeBe32(table.Find(NFTA_TABLE_FLAGS));
        const pid_t process = ScanTableProcess(name);
        const bool owned = flags && (*flags & NFT_TABLE_F_OWNER);
        if (process && !owned && IsDeadOrSelf(process)) {
            names.emplace_back(name);
        }
    };
    try {
        m_netlink.Open(NETLINK_NETFILTER);
        m_leftoversRemoved = true;
        alignas(nlmsghdr) char buffer[64];
        m_netlink.Request(*PutNftRequest(buffer, NFT_MSG_GETTABLE, NLM_F_DUMP), collect);
    } catch (const Error&) {
    }
    for (const std::string& name : names) {
        RemoveTable(name);
    }
}

}  // namespace vxi
