// Files of /proc: whole, or the number that they hold.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxi {

// Contents of a file, at most 16 MiB. Throws Error.
std::string ReadProcFile(const std::string& path);

// First number of a file that holds one or several; nothing where there is none.
std::optional<std::int64_t> ReadProcNumber(const std::string& path);

// The words of a line, which blanks separate; they point into it.
std::vector<std::string_view> SplitWords(std::string_view line);

// The decimal number that `word` is; one that 64 bits cannot hold becomes their limit. Nothing for
// any other word.
std::optional<std::int64_t> ParseSigned(std::string_view word);

}  // namespace vxi
