// Writing texts into JSON.
#pragma once

#include <string>
#include <string_view>

namespace vxi {

// Appends the text in quotes (RFC 8259). What is no UTF-8 becomes U+FFFD, byte by byte: the
// kernel lets names hold any bytes but NUL.
void append_json_text(std::string& out, std::string_view text);

}  // namespace vxi
