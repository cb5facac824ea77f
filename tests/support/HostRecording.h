// The host core library for unit tests: keeps traces, log lines and document settings
// instead of writing them. Linked in place of libvxa_core.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VxaCore/Dom.h"

namespace host {

struct Trace {
    std::string category;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

// Traces of the categories that are on, and log lines as "error: TEXT" or "info: TEXT",
// since the last call.
std::vector<Trace> TakeTraces();
std::vector<std::string> TakeLog();

// The traces as "CATEGORY FUNCTION: MESSAGE".
std::vector<std::string> TakeTraceLines();

// All categories are on from the start.
void EnableTraces(bool on);

// From now on log lines are kept.
void CatchLog();

// A document with the settings written to it.
std::unique_ptr<VxaCore::CDom> MakeDocument();
std::vector<std::pair<std::string, bool>> TakeSettings(VxaCore::CDom& document);

}  // namespace host
