// Scan monitoring of one port: keeps the table in being and reads it.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/Outcome.h"
#include "engines/linux/scan/ScanCounters.h"
#include "engines/linux/scan/ScanTable.h"

namespace vxi {

// How the table is removed when its process ends.
enum class TableLife {
    WithSocket,   // the kernel removes it; where it cannot (before 5.12), the other is taken
    RemovedByUs,  // at the end, or by the next process when this one was killed
};

struct ScanReading {
    uint64_t figures[VXI_SCAN_COUNTERS] = {};
    uint64_t half_open = 0;
    uint64_t uncounted = 0;  // opened since the last reading while the half-open set was full
    bool rebuilt = false;    // the table had been removed: all counters restart at 0
};

struct ScanStatus {
    std::optional<ScanTarget> target;  // empty while nothing is counted
    uint32_t half_open_timeout_s = 0;
    uint64_t half_open = 0;  // at the last reading
    uint64_t uncounted = 0;  // until the last reading: connections that are in no counter
};

// Safe from any thread. Belongs to the process that made it.
class ScanMonitor {
public:
    explicit ScanMonitor(TableLife life = TableLife::WithSocket);
    ~ScanMonitor() { stop(); }

    // Counts this port from now on; keeps the counters when it is counted already.
    Outcome set(const ScanTarget& target);

    // -ENOENT when `target` is not the one set last. Tries again what a failed set left undone.
    Outcome get(const ScanTarget& target, ScanReading& reading);

    // Whether set would succeed, without changing anything.
    Outcome rehearse();

    // What is counted at present, without reading or changing anything.
    ScanStatus status() const;

    // What is counted, where and how, for people; without a table the means alone.
    std::string description() const;

    // Removes the table. Later calls of set and get fail with -ESHUTDOWN.
    void stop();

    pid_t process() const { return process_; }

    // In the child of a fork, where no other call is allowed: lets go of the inherited
    // socket, so that it does not keep the parent's table alive. Safe at any moment.
    void disown() { netlink_.close(); }

private:
    struct Loaded {
        Outcome outcome;
        bool name_taken = false;
        bool owner_unknown = false;
    };

    Outcome build();
    Loaded load(NftBatch::Purpose purpose, Netlink& netlink, const ScanTableSpec& spec) const;
    Outcome read(ScanReading& reading);
    int read_table(ScanReading& reading);
    void take_down();
    void remove_table(const std::string& name);
    void remove_leftovers();

    const pid_t process_;
    mutable std::mutex mutex_;  // guards everything below
    bool running_ = false;
    bool ended_ = false;
    bool leftovers_removed_ = false;
    TableLife life_;
    std::optional<ScanTarget> wanted_;
    ScanTableSpec spec_ = {};
    uint64_t half_open_ = 0;
    uint64_t uncounted_ = 0;
    HalfOpenClosed half_open_closed_;
    Netlink netlink_;
};

}  // namespace vxi
