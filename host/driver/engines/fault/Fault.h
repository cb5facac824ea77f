// Scripted failures around any engine. The grammar is in README.md.
#pragma once

#include <atomic>
#include <string>

#include "api/Calls.h"

namespace vxi::fault {

struct Answer {
    int status;
    char text[200];  // empty: none was given
};

// Set while a script is in force. Dispatch looks here first, so that a process without
// a script pays one load a call.
extern std::atomic<bool> scripted;

// Reads VXI_FAULT, once. False with `error` set while its value is not a script and none has
// replaced it.
bool EnvironmentUsable(std::string& error);

// True when the script has an answer for this call, which then must not reach the engine.
bool NextAnswer(Call call, Answer& answer);

// The engine performed the call with success.
void NoteSuccess(Call call);

}  // namespace vxi::fault
