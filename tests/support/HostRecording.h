// The host core library for unit tests: keeps traces, log lines, document settings, agent
// events and archive entries instead of writing them. Linked in place of libvxa_core.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"

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

// The events as "ID TEXT"; those whose format was given in UTF-8 as "ID utf8 TEXT".
std::vector<std::string> TakeEvents(VxaCore::CDom& document);

struct Entry {
    std::string name;
    bool text;
    std::string comment;
    std::string bytes;
};

// An archive that does not take entries of these names.
std::unique_ptr<VxaCore::CZipOutputStream> MakeArchive(const std::set<std::string>& refused = {});
std::vector<Entry> TakeEntries(VxaCore::CZipOutputStream& archive);

}  // namespace host
