// The host core library for unit tests: what the module gives it is kept and handed out.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VxaCore/Dom.h"
#include "vxa_core/document.h"
#include "vxa_core/host.h"

namespace host {

using Record = VxaCore::Host::LogRecord;
using Lines = std::vector<std::string>;

// What was traced or logged since the last call: traces whole and as "CATEGORY FUNCTION:
// MESSAGE", lines of the general log as "LEVEL: MESSAGE".
std::vector<Record> TakeTraces();
Lines TakeTraceLines();
Lines TakeLog();

void EnableTraces(bool on);  // of all categories; off at first

std::unique_ptr<VxaCore::CDom> MakeDocument();
std::optional<bool> TakeSetting(VxaCore::CDom& document, const std::string& key);
Lines Events(VxaCore::CDom& document);  // "ID TEXT"; "ID utf8 TEXT" if given in UTF-8

}  // namespace host
