// The process's scan monitor at exit and across fork(2) and clone(2).
#include "engines/linux/scan/ProcessScanMonitor.h"

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

// The parent's threads do not exist in the child, and the lock stays as they left it: the child
// abandons the object and makes another when it needs one.
void AbandonInChild()
{
    ScanMonitor* inherited = current.exchange(nullptr);
    if (inherited) {
        inherited->CloseInheritedSocket();
    }
}

bool MakeFirstMonitor()
{
    current = new (first_monitor) ScanMonitor();
    atexit(StopAtExit);
    pthread_atfork(nullptr, nullptr, AbandonInChild);
    return true;
}

// Makes a child's monitor. `inherited` is null after fork(2), the parent's after a bare clone(2),
// which runs no fork handlers.
ScanMonitor* MakeForChild(ScanMonitor* inherited)
{
    if (inherited) {
        inherited->CloseInheritedSocket();
    }
    auto* fresh = new ScanMonitor();
    if (current.compare_exchange_strong(inherited, fresh)) {
        return fresh;
    }
    delete fresh;  // another thread of the child was faster
    return inherited;
}

}  // namespace

ScanMonitor& ProcessScanMonitor()
{
    static const bool kMade = MakeFirstMonitor();
    (void)kMade;
    ScanMonitor* monitor = current.load();
    return monitor && monitor->Process() == getpid() ? *monitor : *MakeForChild(monitor);
}

}  // namespace vxi
