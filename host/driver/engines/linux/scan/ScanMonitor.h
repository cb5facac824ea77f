// Scan monitoring of one port: keeps the table in being and reads it.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>

#include "engines/linux/Outcome.h"
#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/scan/ScanCounters.h"
#include "engines/linux/scan/ScanTable.h"

namespace vxi {

// How the table is removed when its process ends.
enum class TableLife {
    kWithSocket,   // the kernel removes it; where it cannot (before 5.12), the other is taken
    kRemovedByUs,  // at the end, or by the next process when this one was killed
};

struct ScanReading {
    std::uint64_t figures[VXI_SCAN_COUNTERS] = {};
    std::uint64_t half_open = 0;
    std::uint64_t uncounted = 0;  // opened since the last reading while the half-open set was full
    bool rebuilt = false;         // the table had been removed: all counters restart at 0
};

struct ScanStatus {
    std::optional<ScanTarget> target;  // empty while nothing is counted
    std::uint32_t half_open_timeout_s = 0;
    std::uint64_t half_open = 0;  // at the last reading
    std::uint64_t uncounted = 0;  // until the last reading: connections that are in no counter
};

// Safe from any thread. Belongs to the process that made it.
class ScanMonitor {
public:
    explicit ScanMonitor(TableLife life = TableLife::kWithSocket);
    ~ScanMonitor() { Stop(); }

    // Counts this port from now on; keeps the counters when it is counted already.
    Outcome Set(const ScanTarget& target);

    // -ENOENT when `target` is not the one set last. Tries again what a failed set left undone.
    Outcome get(const ScanTarget& target, ScanReading& reading);

    // Whether set would succeed, without changing anything.
    Outcome Rehearse();

    // What is counted at present, without reading or changing anything.
    ScanStatus Status() const;

    // What is counted, where and how, for people; without a table the means alone.
    std::string Description() const;

    // Removes the table. Later calls of set and get fail with -ESHUTDOWN.
    void Stop();

    pid_t Process() const { return m_process; }

    // In the child of a fork, where no other call is allowed: lets go of the inherited
    // socket, so that it does not keep the parent's table alive. Safe at any moment.
    void Disown() { m_netlink.Close(); }

private:
    struct Loaded {
        Outcome outcome;
        bool name_taken = false;
        bool owner_unknown = false;
    };

    Outcome Build();
    Loaded Load(NftBatch::Purpose purpose, Netlink& netlink, const ScanTableSpec& spec) const;
    Outcome Read(ScanReading& reading);
    int ReadTable(ScanReading& reading);
    void TakeDown();
    void RemoveTable(const std::string& name);
    void RemoveLeftovers();

    const pid_t m_process;
    mutable std::mutex m_mutex;  // guards everything below
    bool m_running = false;
    bool m_ended = false;
    bool m_leftoversRemoved = false;
    TableLife m_life;
    std::optional<ScanTarget> m_wanted;
    ScanTableSpec m_spec = {};
    std::uint64_t m_halfOpen = 0;
    std::uint64_t m_uncounted = 0;
    HalfOpenClosed m_halfOpenClosed;
    Netlink m_netlink;
};

}  // namespace vxi
