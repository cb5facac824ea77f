// JSON strings (RFC 8259).
#pragma once

#include <string>
#include <string_view>

namespace vxi {

// Appends `bytes` as a quoted string. Each byte that is not part of valid UTF-8 becomes U+FFFD:
// the kernel lets names have any bytes but NUL.
void AppendJsonString(std::string& out, std::string_view bytes);

}  // namespace vxi
