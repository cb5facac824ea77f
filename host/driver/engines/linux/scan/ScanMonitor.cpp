#include "engines/linux/scan/ScanMonitor.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <vector>

#include "api/Message.h"

namespace vxi {

namespace {

constexpr unsigned names_max = 8;
constexpr unsigned rebuilds_max = 1;  // within one reading

const char* direction_name(uint32_t direction)
{
    return direction == VXI_SCAN_OUTBOUND ? "outbound" : "inbound";
}

Outcome ended()
{
    return failure(-ESHUTDOWN, "the process is ending");
}

Outcome socket_failure(int status)
{
    if (status == -EPROTONOSUPPORT || status == -EAFNOSUPPORT) {
        return failure(status, "this kernel has no netfilter netlink (nfnetlink)");
    }
    return failure(status, "netfilter netlink socket: %s", describe_status(status).c_str());
}

// Of a batch that the kernel refused.
Outcome batch_failure(const NftBatch& batch, const Netlink::BatchResult& result, bool whole)
{
    const int status = result.status;
    if (whole && status == -EPERM) {
        return failure(status, "nf_tables needs CAP_NET_ADMIN");
    }
    if (whole && status == -EOPNOTSUPP) {
        return failure(status, "this kernel has no nf_tables");
    }
    return failure(status, "nf_tables refused the %s: %s", batch.label(result.sequence).c_str(),
                   describe_status(status).c_str());
}

Outcome read_failure(int status)
{
    if (status == -EPERM) {
        return failure(status, "nf_tables needs CAP_NET_ADMIN");
    }
    if (status == -EINTR) {
        return failure(status, "the rules changed during each of six readings");
    }
    return failure(status, "reading the nf_tables counters: %s", describe_status(status).c_str());
}

bool is_dead_or_self(pid_t process)
{
    return process == getpid() || (kill(process, 0) < 0 && errno == ESRCH);
}

}  // namespace

ScanMonitor::ScanMonitor(TableLife life) : process_(getpid()), life_(life) {}

Outcome ScanMonitor::set(const ScanTarget& target)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) {
        return ended();
    }
    if (running_ && *wanted_ == target) {
        return {};
    }
    take_down();
    wanted_ = target;
    return build();
}

Outcome ScanMonitor::get(const ScanTarget& target, ScanReading& reading)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) {
        return ended();
    }
    if (!wanted_) {
        return failure(-ENOENT, "no port is monitored");
    }
    if (!(*wanted_ == target))
        return failure(-ENOENT, "port %u %s is not monitored (port %u %s is)", target.port,
                       direction_name(target.direction), wanted_->port,
                       direction_name(wanted_->direction));
    return read(reading);
}

Outcome ScanMonitor::rehearse()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) {
        return ended();
    }
    if (running_) {
        return {};
    }
    Netlink netlink;
    const ScanTarget any_port = {VXI_SCAN_INBOUND, 1};
    const ScanTableSpec owned = {scan_table_name(process_, 0), any_port, 1, true};
    Loaded loaded = load(NftBatch::Purpose::Rehearse, netlink, owned);
    if (!loaded.owner_unknown) {
        return loaded.outcome;
    }
    ScanTableSpec unowned = owned;
    unowned.owned = false;
    return load(NftBatch::Purpose::Rehearse, netlink, unowned).outcome;
}

ScanStatus ScanMonitor::status() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) {
        return {};
    }
    return {wanted_, spec_.half_open_timeout_s, half_open_, uncounted_};
}

std::string ScanMonitor::description() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) {
        return "nf_tables, one table a process";
    }
    return "nf_tables table " + spec_.name + ": port " + std::to_string(spec_.target.port) + " " +
           direction_name(spec_.target.direction) + ", half-open for at most " +
           std::to_string(spec_.half_open_timeout_s) + " s" +
           (spec_.owned ? "" : " (this kernel knows no owner flag: removed at exit)");
}

void ScanMonitor::stop()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (process_ != getpid()) {
        return;
    }
    take_down();
    ended_ = true;
}

// One attempt to make the table.
ScanMonitor::Loaded ScanMonitor::load(NftBatch::Purpose purpose, Netlink& netlink,
                                      const ScanTableSpec& spec) const
{
    const int opened = netlink.open(NETLINK_NETFILTER);
    if (opened < 0) {
        return {socket_failure(opened)};
    }
    NftBatch batch(netlink);
    const uint32_t table = add_scan_table(batch, spec);
    const Netlink::BatchResult result = batch.send(purpose);
    if (result.status == 0) {
        return {};
    }
    const int of_table = result.sequence == table ? result.status : 0;
    return {batch_failure(batch, result, result.sequence + 1 == table),
            of_table == -EPERM || of_table == -EEXIST,
            spec.owned && (of_table == -EOPNOTSUPP || of_table == -EINVAL)};
}

Outcome ScanMonitor::build()
{
    const ScanTarget target = *wanted_;
    Loaded loaded;
    unsigned attempt = 0;
    do {
        if (life_ == TableLife::RemovedByUs) {
            remove_leftovers();
        }
        spec_ = {scan_table_name(process_, attempt), target, half_open_timeout_of(target.direction),
                 life_ == TableLife::WithSocket};
        loaded = load(NftBatch::Purpose::Commit, netlink_, spec_);
        if (loaded.owner_unknown) {
            life_ = TableLife::RemovedByUs;
        }
        if (loaded.name_taken) {
            ++attempt;
        }
    } while (loaded.owner_unknown || (loaded.name_taken && attempt < names_max));
    running_ = !loaded.outcome.failed();
    half_open_ = 0;
    uncounted_ = 0;
    half_open_closed_ = {};
    return loaded.outcome;
}

Outcome ScanMonitor::read(ScanReading& reading)
{
    reading = {};
    for (unsigned builds = 0;; ++builds) {
        if (!running_) {
            const Outcome built = build();
            if (built.failed()) {
                return built;
            }
        }
        const int status = read_table(reading);
        if (status == 0) {
            return {};
        }
        const bool gone = status == -ENOENT;
        if (gone || !netlink_.is_open()) {
            take_down();
        }
        if (!gone || builds == rebuilds_max) {
            return read_failure(status);
        }
        reading.rebuilt = true;
    }
}

int ScanMonitor::read_table(ScanReading& reading)
{
    ScanCounterValues before;
    ScanCounterValues after;
    int status = read_scan_counters(netlink_, spec_.name, before);
    if (status == 0) {
        status = count_half_open(netlink_, spec_.name, reading.half_open);
    }
    if (status == 0) {
        status = read_scan_counters(netlink_, spec_.name, after);
    }
    if (status == 0) {
        status = read_scan_traffic(netlink_, spec_.name, after);
    }
    if (status < 0) {
        return status;
    }
    scan_figures(after, half_open_closed_.update(before, reading.half_open, after),
                 reading.figures);
    half_open_ = reading.half_open;
    const uint64_t uncounted = after[ScanCounter::Uncounted].packets;
    reading.uncounted = uncounted - (uncounted < uncounted_ ? 0 : uncounted_);
    uncounted_ = uncounted;
    return 0;
}

// Nobody waits for this: a table that stays is removed by the next process.
void ScanMonitor::remove_table(const std::string& name)
try {
    if (!netlink_.is_open() && netlink_.open(NETLINK_NETFILTER) < 0) {
        return;
    }
    NftBatch batch(netlink_);
    add_table_removal(batch, name);
    batch.send(NftBatch::Purpose::Commit);
} catch (const std::bad_alloc&) {
}

void ScanMonitor::take_down()
{
    if (running_ && !spec_.owned) {
        remove_table(spec_.name);
    }
    running_ = false;
    netlink_.close();
}

// Tables that the kernel does not remove by itself, of processes that were killed.
void ScanMonitor::remove_leftovers()
{
    if (leftovers_removed_ || netlink_.open(NETLINK_NETFILTER) < 0) {
        return;
    }
    leftovers_removed_ = true;
    std::vector<std::string> names;
    alignas(nlmsghdr) char buffer[64];
    nlmsghdr* request = nft_request(buffer, NFT_MSG_GETTABLE, NLM_F_DUMP);
    netlink_.request(*request, [&](const nlmsghdr& message) {
        const Attributes table(message, sizeof(nfgenmsg));
        const auto name = text_of(table.find(NFTA_TABLE_NAME));
        const auto flags = be32_of(table.find(NFTA_TABLE_FLAGS));
        const pid_t process = scan_table_process(name);
        const bool owned = flags && (*flags & NFT_TABLE_F_OWNER);
        if (process && !owned && is_dead_or_self(process)) {
            names.emplace_back(name);
        }
        return 0;
    });
    for (const std::string& name : names) {
        remove_table(name);
    }
}

}  // namespace vxi
