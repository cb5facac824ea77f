// Scan monitoring of one port: keeps its table in the kernel and reads it.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/scan/ScanMetrics.h"
#include "engines/linux/scan/ScanTable.h"

namespace vxi {

// Who removes the table when its process ends.
enum class TableRemoval {
    kByKernel,   // with the socket; where it cannot (before Linux 5.12), the library does
    kByLibrary,  // at exit; if the process was killed, in the next one that monitors
};

struct ScanReading {
    ScanMetrics metrics = {};
    std::uint64_t half_open = 0;
    std::uint64_t uncounted = 0;  // opened since the last reading while the half-open set was full
    bool rebuilt = false;         // the table had been removed: all counters restart at 0
};

struct ScanStatus {
    std::optional<ScanTarget> target;  // nullopt while no port is monitored
    std::uint32_t half_open_timeout_s = 0;
    std::uint64_t half_open = 0;  // at the last reading
    std::uint64_t uncounted = 0;  // until the last reading: connections that are in no counter
};

// Safe from any thread. Belongs to the process that made it. Functions that fail throw Error.
class ScanMonitor {
public:
    explicit ScanMonitor(TableRemoval removal = TableRemoval::kByKernel);
    ~ScanMonitor() { Stop(); }

    // Monitors this port instead of any other; keeps the counters when it is monitored already.
    void Start(const ScanTarget& target);

    // Reads the counters; builds the table again if it is gone, or if an earlier Start failed.
    // -ENOENT when `target` is not the one started last.
    ScanReading Read(const ScanTarget& target);

    // Throws what Start would throw, without changing anything.
    void CheckStart();

    // What is monitored; neither reads nor changes anything.
    ScanStatus Status() const;

    // Describes what is monitored, where and how; without a table, only how.
    std::string Description() const;

    // Removes the table. After that Start and Read fail with -ESHUTDOWN.
    void Stop() noexcept;

    pid_t Process() const { return m_process; }

    // For the child of a fork, where no other call is allowed: closes the inherited socket, so that
    // it does not keep the parent's table alive. Safe at any moment.
    void CloseInheritedSocket() noexcept { m_netlink.Close(); }

private:
    void RequireNotEnded() const;
    void CreateTable();
    void LoadTable(NftBatch::Purpose purpose, Netlink& netlink, const ScanTableSpec& spec) const;
    ScanReading ReadOrRebuild();
    ScanReading ReadTable();
    void RemoveTable() noexcept;
    void DeleteTable(const std::string& name) noexcept;
    void DeleteTablesOfDeadProcesses();

    const pid_t m_process;
    mutable std::mutex m_mutex;  // guards everything below
    bool m_running = false;
    bool m_ended = false;
    bool m_deadProcessesDone = false;
    TableRemoval m_removal;
    std::optional<ScanTarget> m_target;
    ScanTableSpec m_spec = {};
    std::uint64_t m_halfOpen = 0;
    std::uint64_t m_uncounted = 0;
    HalfOpenClosed m_halfOpenClosed;
    Netlink m_netlink;
};

}  // namespace vxi
