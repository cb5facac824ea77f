// Scripted failures of any engine. README.md describes the script's grammar.
#pragma once

#include <atomic>
#include <optional>

#include "api/Call.h"

namespace vxi::fault {

struct Answer {
    int status;
    char message[256];
};

// Set while a script is in force, so that a process without one pays one load per call.
extern std::atomic<bool> scripted;

// Throws an Error while VXI_FAULT is not a valid script and vxi_fault_script has not replaced it.
void CheckEnvironment();

// Returns the script's answer to this call, which must then not reach the engine; nullopt if it has
// none. Does not throw.
std::optional<Answer> NextAnswer(Call call);

// Counts a call that succeeded in the engine: a fault with "after=N" waits for N of them.
void NoteSuccess(Call call);

}  // namespace vxi::fault
