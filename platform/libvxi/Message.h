// Texts that the library keeps and hands out: pure ASCII, always NUL-terminated.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxi {

// What a status means, for texts that have nothing better to say.
std::string describe_status(int status);

// Appends `text` with everything but printable ASCII written as \xNN, and the
// backslash itself as \x5c, so that the escaped form can be read back. `blank` tells
// whether a space may stand as it is.
void append_ascii(std::string& out, std::string_view text, bool blank);

// Copies into a buffer of `size` > 0 bytes, cut to fit.
void copy_text(char* buffer, std::size_t size, std::string_view text);

// Why the calling thread's last vxi_open returned null.
void set_open_error(std::string_view text);

}  // namespace vxi
