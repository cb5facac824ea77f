// Where the records of both logs go: a file, standard error, or memory.
#pragma once

#include <stdexcept>
#include <string>

#include "vxa_core/log.h"

namespace VxaCore {

// Writes the record; it is in the log when this returns. Safe from any thread.
void WriteRecord(Host::LogRecord record);

// Reports on standard error that a record could not be made. Does not allocate.
void ReportLostRecord(const char* reason) noexcept;

// Writes a general-log record of level "error": the label, a colon and the message.
void LogError(const char* label, const char* message);

// Calls the function; logs an exception. For destructors.
template <typename Function>
void LogException(const char* label, Function function) noexcept
{
    try {
        try {
            function();
        } catch (const std::runtime_error& error) {
            LogError(label, error.what());
        }
    } catch (const std::exception& error) {
        ReportLostRecord(error.what());
    }
}

// The record as a line with its line feed.
std::string JsonLine(const Host::LogRecord& record);
std::string ReadableLine(const Host::LogRecord& record);

}  // namespace VxaCore
