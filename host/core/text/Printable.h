// Messages on their way to a terminal.
#pragma once

#include <string>
#include <string_view>

namespace VxaCore {

// Appends the message without its trailing line feeds: control characters become \xNN, lines
// after the first are indented.
void AppendReadable(std::string& out, std::string_view utf8);

}  // namespace VxaCore
