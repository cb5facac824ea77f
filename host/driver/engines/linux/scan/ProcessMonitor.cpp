#include "engines/linux/scan/ProcessMonitor.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace vxi {

namespace {

std::atomic<ScanMonitor*> current{nullptr};

// Storage that is never destroyed: at exit other threads may still be inside a call.
alignas(ScanMonitor) unsigned char first_monitor[sizeof(ScanMonitor)];

void stop_at_exit()
{
    ScanMonitor* monitor = current.load();
    if (monitor && monitor->process() == getpid()) {
        monitor->stop();
    }
}

// Whatever a thread of the parent was doing, its lock included, stays as it was for good:
// the child abandons the object and makes another when it needs one.
void abandon_in_child()
{
    ScanMonitor* inherited = current.exchange(nullptr);
    if (inherited) {
        inherited->disown();
    }
}

bool start()
{
    current = new (first_monitor) ScanMonitor();
    atexit(stop_at_exit);
    pthread_atfork(nullptr, nullptr, abandon_in_child);
    return true;
}

// For a child: of a fork (`seen` is null) or of a bare clone, which runs no fork handlers.
ScanMonitor* replace(ScanMonitor* seen)
{
    if (seen) {
        seen->disown();
    }
    auto* fresh = new ScanMonitor();
    if (current.compare_exchange_strong(seen, fresh)) {
        return fresh;
    }
    delete fresh;  // another thread of the child was faster
    return seen;
}

}  // namespace

ScanMonitor& process_scan_monitor()
{
    static const bool started = start();
    (void)started;
    ScanMonitor* monitor = current.load();
    return monitor && monitor->process() == getpid() ? *monitor : *replace(monitor);
}

}  // namespace vxi
