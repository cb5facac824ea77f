// Checking JSON texts with the parser that the plugin uses, with a place for errors.
#pragma once

#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Where and why a text is no JSON.
struct JsonProblem {
    unsigned line = 0;    // from 1
    unsigned column = 0;  // from 1, in characters
    char message[160] = "";
};

// Whether the text is one JSON value with nothing but white space around it. `text`
// must be followed by a NUL in memory (as C strings, std::string and Lua strings are).
// Safe from any thread; allocates what the parser needs.
VXA_CORE_API bool CheckJson(std::string_view text, JsonProblem& problem);

}  // namespace VxaCore::Host
