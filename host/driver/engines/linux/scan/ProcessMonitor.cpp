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

void StopAtExit()
{
    ScanMonitor* monitor = current.load();
    if (monitor && monitor->Process() == getpid()) {
        monitor->Stop();
    }
}

// Whatever a thread of the parent was doing, its lock included, stays as it was for good:
// the child abandons the object and makes another when it needs one.
void AbandonInChild()
{
    ScanMonitor* inherited = current.exchange(nullptr);
    if (inherited) {
        inherited->Disown();
    }
}

bool Start()
{
    current = new (first_monitor) ScanMonitor();
    atexit(StopAtExit);
    pthread_atfork(nullptr, nullptr, AbandonInChild);
    return true;
}

// For a child: of a fork (`seen` is null) or of a bare clone, which runs no fork handlers.
ScanMonitor* Replace(ScanMonitor* seen)
{
    if (seen) {
        seen->Disown();
    }
    auto* fresh = new ScanMonitor();
    if (current.compare_exchange_strong(seen, fresh)) {
        return fresh;
    }
    delete fresh;  // another thread of the child was faster
    return seen;
}

}  // namespace

ScanMonitor& ProcessScanMonitor()
{
    static const bool kStarted = Start();
    (void)kStarted;
    ScanMonitor* monitor = current.load();
    return monitor && monitor->Process() == getpid() ? *monitor : *Replace(monitor);
}

}  // namespace vxi
