// The switch of rule profiling, and its hooks.
#include "api/Profiler.h"

#include <atomic>

namespace vxi {

namespace {

std::atomic<bool> profiling{false};

// Several threads can change rules at once: profiling resumes when the last one is done.
std::atomic<int> pauses{0};

std::atomic<vxi_profiler_blockfilter> blockfilter_hook{nullptr};

int Resume()
{
    int before = pauses.load();
    // A resume without a suspend must not cancel a later suspend.
    while (before > 0 && !pauses.compare_exchange_weak(before, before - 1)) {
    }
    return before > 0;
}

}  // namespace

bool SetProfiling(bool on)
{
    return profiling.exchange(on);
}

ProfilingPause::ProfilingPause() : m_blockfilter(blockfilter_hook.load())
{
    if (m_blockfilter) {
        m_blockfilter(1);
    }
}

ProfilingPause::~ProfilingPause()
{
    if (m_blockfilter) {
        m_blockfilter(0);
    }
}

}  // namespace vxi

int profiler_blockfilter(int block)
{
    return block ? vxi::pauses.fetch_add(1) > 0 : vxi::Resume();
}

int profiler_running(void)
{
    return vxi::profiling.load() && vxi::pauses.load() == 0;
}

void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running)
{
    vxi::blockfilter_hook.store(blockfilter);
}
