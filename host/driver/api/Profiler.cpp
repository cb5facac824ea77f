#include "api/Profiler.h"

#include <atomic>

namespace vxi {

namespace {

std::atomic<bool> profiling{false};

// Threads can change rules at once: profiling resumes with the last of them.
std::atomic<int> pauses{0};

// Each hook is useful without the other, so they need not change together.
std::atomic<vxi_profiler_blockfilter> blockfilter_hook{nullptr};
std::atomic<vxi_profiler_running> running_hook{nullptr};

int Resume()
{
    int before = pauses.load();
    // A resume without a suspend must not let a later suspend count for nothing.
    while (before > 0 && !pauses.compare_exchange_weak(before, before - 1)) {
    }
    return before > 0;
}

}  // namespace

bool SwitchProfiling(bool on)
{
    return profiling.exchange(on);
}

bool ProfilingSwitch()
{
    return profiling.load();
}

bool ProfilingRuns()
{
    const vxi_profiler_running running = running_hook.load();
    return running ? running() != 0 : ProfilingSwitch();
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

void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running running)
{
    vxi::blockfilter_hook.store(blockfilter);
    vxi::running_hook.store(running);
}
