// The life of a scan table: created, read, rebuilt, removed.
#include "engines/linux/scan/ScanMonitor.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "api/Error.h"
#include "engines/linux/netlink/NfTables.h"
#include "engines/linux/scan/HandshakeTimeout.h"
#include "engines/linux/scan/ScanTableName.h"

namespace vxi {

namespace {

constexpr unsigned kNamesMax = 8;
constexpr unsigned kRebuildsMax = 1;  // within one reading

// The kernel refused the table itself, not a part of it.
class TableRefused : public Error {
public:
    explicit TableRefused(const NftRefused& cause) : Error(cause.Status(), cause.what()) {}

    // Another process has a table of that name.
    bool NameTaken() const { return Status() == -EPERM || Status() == -EEXIST; }
    // For a table with the owner flag: kernels before 5.12 do not have it.
    bool OwnerFlagUnknown() const { return Status() == -EOPNOTSUPP || Status() == -EINVAL; }
};

void OpenNetfilter(Netlink& netlink)
try {
    netlink.Open(NETLINK_NETFILTER);
} catch (const Error& error) {
    if (error.Status() == -EPROTONOSUPPORT || error.Status() == -EAFNOSUPPORT) {
        throw Error(error.Status(), kNoNetfilterNetlink);
    }
    ThrowError(error.Status(), "netfilter netlink socket: %s", error.what());
}

[[noreturn]] void ThrowReadFailure(const Error& cause)
{
    switch (cause.Status()) {
        case -EPERM:
            throw Error(-EPERM, kNftNeedsPrivilege);
        case -EINTR:
            throw Error(cause);
        default:
            ThrowError(cause.Status(), "reading the nf_tables counters: %s", cause.what());
    }
}

bool IsDeadOrSelf(pid_t process)
{
    return process == getpid() || (kill(process, 0) < 0 && errno == ESRCH);
}

// Whether a table was left by a process that no longer exists, or by an earlier one with this
// process's number. Owned tables are the kernel's to remove.
bool IsLeftOver(std::string_view name, std::uint32_t flags)
{
    const auto process = ScanTableProcess(name);
    return process && !(flags & NFT_TABLE_F_OWNER) && IsDeadOrSelf(*process);
}

std::vector<std::string> LeftOverTables(Netlink& netlink)
{
    std::vector<std::string> names;
    alignas(nlmsghdr) char buffer[64];
    netlink.Request(
        *PutNftRequest(buffer, NFT_MSG_GETTABLE, NLM_F_DUMP), [&](const nlmsghdr& message) {
            const Attributes table(message, sizeof(nfgenmsg));
            const auto name = DecodeString(table.Find(NFTA_TABLE_NAME));
            if (IsLeftOver(name, DecodeBe32(table.Find(NFTA_TABLE_FLAGS)).value_or(0))) {
                names.emplace_back(name);
            }
        });
    return names;
}

}  // namespace

ScanMonitor::ScanMonitor(TableRemoval removal) : m_process(getpid()), m_removal(removal) {}

void ScanMonitor::Start(const ScanTarget& target)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    RequireNotEnded();
    if (m_running && *m_target == target) {
        return;
    }
    RemoveTable();
    m_target = target;
    CreateTable();
}

ScanReading ScanMonitor::Read(const ScanTarget& target)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    RequireNotEnded();
    if (!m_target) {
        throw Error(-ENOENT, "no port is monitored");
    }
    if (!(*m_target == target)) {
        ThrowError(-ENOENT, "port %u %s is not monitored (port %u %s is)", target.port,
                   DirectionName(target.direction), m_target->port,
                   DirectionName(m_target->direction));
    }
    return ReadOrRebuild();
}

void ScanMonitor::CheckStart()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    RequireNotEnded();
    if (m_running) {
        return;
    }
    Netlink netlink;
    const ScanTarget any_port = {VXI_SCAN_INBOUND, 1};
    ScanTableSpec spec = {ScanTableName(any_port, m_process, 0), any_port, 1, true};
    try {
        LoadTable(NftBatch::Purpose::kRehearse, netlink, spec);
    } catch (const TableRefused& refused) {
        if (!refused.OwnerFlagUnknown()) {
            throw;
        }
        spec.owned = false;
        LoadTable(NftBatch::Purpose::kRehearse, netlink, spec);
    }
}

ScanStatus ScanMonitor::Status() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) {
        return {};
    }
    return {m_target, m_spec.half_open_timeout_s, m_halfOpen, m_uncounted};
}

std::string ScanMonitor::Description() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) {
        return "nf_tables, one table per process";
    }
    return "nf_tables table " + m_spec.name + ": port " + std::to_string(m_spec.target.port) + " " +
           DirectionName(m_spec.target.direction) + ", half-open for at most " +
           std::to_string(m_spec.half_open_timeout_s) + " s" +
           (m_spec.owned ? "" : " (this kernel has no owner flag: removed at exit)");
}

void ScanMonitor::Stop() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_process != getpid()) {
        return;
    }
    RemoveTable();
    m_ended = true;
}

void ScanMonitor::RequireNotEnded() const
{
    if (m_ended) {
        throw Error(-ESHUTDOWN, "the process is ending");
    }
}

// Throws TableRefused where another name, or a table without owner, may succeed.
void ScanMonitor::LoadTable(NftBatch::Purpose purpose, Netlink& netlink,
                            const ScanTableSpec& spec) const
{
    OpenNetfilter(netlink);
    NftBatch batch(netlink);
    const std::uint32_t table = AddScanTable(batch, spec);
    try {
        batch.Send(purpose);
    } catch (const NftRefused& refused) {
        if (refused.Sequence() == table) {
            throw TableRefused(refused);
        }
        throw;
    }
}

void ScanMonitor::CreateTable()
{
    m_halfOpen = 0;
    m_uncounted = 0;
    m_halfOpenClosed = {};
    for (unsigned attempt = 0; !m_running;) {
        const bool owned = m_removal == TableRemoval::kByKernel;
        if (!owned) {
            DeleteTablesOfDeadProcesses();
        }
        m_spec = {ScanTableName(*m_target, m_process, attempt), *m_target,
                  ConfiguredHandshakeTimeoutS(m_target->direction), owned};
        try {
            LoadTable(NftBatch::Purpose::kCommit, m_netlink, m_spec);
            m_running = true;
        } catch (const TableRefused& refused) {
            if (owned && refused.OwnerFlagUnknown()) {
                m_removal = TableRemoval::kByLibrary;
            } else if (!refused.NameTaken() || ++attempt == kNamesMax) {
                throw;
            }
        }
    }
}

ScanReading ScanMonitor::ReadOrRebuild()
{
    for (unsigned rebuilds = 0;; ++rebuilds) {
        if (!m_running) {
            CreateTable();
        }
        try {
            ScanReading reading = ReadTable();
            reading.rebuilt = rebuilds > 0;
            return reading;
        } catch (const Error& error) {
            const bool gone = error.Status() == -ENOENT;
            if (gone || !m_netlink.IsOpen()) {
                RemoveTable();
            }
            if (!gone || rebuilds == kRebuildsMax) {
                ThrowReadFailure(error);
            }
        }
    }
}

ScanReading ScanMonitor::ReadTable()
{
    ScanReading reading;
    const ScanCounters before = ReadNamedCounters(m_netlink, m_spec.name);
    reading.half_open = CountHalfOpen(m_netlink, m_spec.name);
    ScanCounters after = ReadNamedCounters(m_netlink, m_spec.name);
    ReadTrafficCounters(m_netlink, m_spec.name, after);
    reading.metrics =
        ComputeScanMetrics(after, m_halfOpenClosed.Update(before, reading.half_open, after));
    m_halfOpen = reading.half_open;
    const std::uint64_t uncounted = after[ScanCounter::kUncounted].packets;
    reading.uncounted = uncounted - (uncounted < m_uncounted ? 0 : m_uncounted);
    m_uncounted = uncounted;
    return reading;
}

void ScanMonitor::RemoveTable() noexcept
{
    if (m_running && !m_spec.owned) {
        DeleteTable(m_spec.name);
    }
    m_running = false;
    m_netlink.Close();
}

// A table that cannot be deleted is harmless: the next process deletes it.
void ScanMonitor::DeleteTable(const std::string& name) noexcept
try {
    if (!m_netlink.IsOpen()) {
        m_netlink.Open(NETLINK_NETFILTER);
    }
    NftBatch batch(m_netlink);
    AddTableRemoval(batch, name);
    batch.Send(NftBatch::Purpose::kCommit);
} catch (const std::exception&) {
}

// Once per process. What cannot be listed or deleted is harmless.
void ScanMonitor::DeleteTablesOfDeadProcesses()
try {
    if (m_deadProcessesDone) {
        return;
    }
    m_netlink.Open(NETLINK_NETFILTER);
    m_deadProcessesDone = true;
    for (const std::string& name : LeftOverTables(m_netlink)) {
        DeleteTable(name);
    }
} catch (const Error&) {
}

}  // namespace vxi
