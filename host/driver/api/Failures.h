// The failed calls that a handle remembers for vxi_failures, and those that the process counts.
#pragma once

#include <algorithm>

#include "api/BoundedText.h"
#include "api/Call.h"
#include "vxi/engine.h"

namespace vxi {

// For vxi_failure_counts.
void CountFailure(Call call);

// A ring of fixed size: out of memory is one of the failures that it keeps.
class Failures {
public:
    void Add(Call call, int status, const char* message)
    {
        CountFailure(call);
        vxi_failure_s& row = m_rows[m_total++ % VXI_FAILURES_KEPT];
        row.call = CallName(call);
        row.status = status;
        BoundedText(row.message).Plain(message);
    }

    // Copies the latest, at most `count`, oldest first; returns how many there were in all.
    unsigned int CopyLatest(vxi_failure_s* rows, unsigned int count) const
    {
        const unsigned int copied = std::min({count, m_total, 0U + VXI_FAILURES_KEPT});
        for (unsigned int i = 0; rows && i < copied; ++i) {
            rows[i] = m_rows[(m_total - copied + i) % VXI_FAILURES_KEPT];
        }
        return m_total;
    }

private:
    vxi_failure_s m_rows[VXI_FAILURES_KEPT] = {};
    unsigned int m_total = 0;
};

}  // namespace vxi
