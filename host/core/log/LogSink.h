// Where records of both logs go: a file, standard error, or memory.
#pragma once

#include "vxa_core/host.h"

namespace VxaCore {

// Writes the record; in the log when it returns. Safe from any thread.
void WriteRecord(Host::LogRecord record);

// Says on standard error that a record could not even be built; allocates nothing.
void ReportLostRecord(const char* reason) noexcept;

// The record as a line with its line feed.
std::string JsonLine(const Host::LogRecord& record);
std::string ReadableLine(const Host::LogRecord& record);

}  // namespace VxaCore
