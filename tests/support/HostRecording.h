// What the module traces through the host core library, for unit tests that link vxa_core.
#pragma once

#include <string>
#include <vector>

#include "vxa_core/log.h"

namespace host {

using Record = VxaCore::Host::LogRecord;
using Lines = std::vector<std::string>;

inline void EnableTraces(bool on)  // of all categories; off at first
{
    VxaCore::Host::CaptureLog(true);
    VxaCore::Host::SwitchTrace("*", on);
}

// What was traced since the last call, and the same as "CATEGORY FUNCTION: MESSAGE".
inline std::vector<Record> TakeTraces()
{
    std::vector<Record> traces;
    for (Record& record : VxaCore::Host::TakeCaptured().records)
        if (record.trace) traces.push_back(std::move(record));
    return traces;
}

inline Lines TakeTraceLines()
{
    Lines lines;
    for (const Record& trace : TakeTraces())
        lines.push_back(trace.label + " " + trace.function + ": " + trace.message);
    return lines;
}

}  // namespace host
