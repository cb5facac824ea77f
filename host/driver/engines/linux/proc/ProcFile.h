// Reads files of /proc: all of one, or the first number in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxi {

// Contents of a file, at most 16 MiB. Throws Error.
std::string ReadProcFile(const std::string& path);

// First number in a file; nullopt if there is none.
std::optional<std::int64_t> ReadProcNumber(const std::string& path);

// The words of a line, which blanks separate; they point into it.
std::vector<std::string_view> SplitWords(std::string_view line);

// Parses a decimal number; one that does not fit in 64 bits becomes the nearest that does. Returns
// nullopt for any other word.
std::optional<std::int64_t> ParseSigned(std::string_view word);

}  // namespace vxi
