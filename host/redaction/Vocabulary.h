// The words that do not identify anybody and are not masked.
#pragma once

#include <string_view>

namespace vxa::redaction {

// Whether the word, with its hyphens and underscores, is in this program's sources, in a system
// error message, in the JSON of nft, or common in the names of distributions and kernels. Upper
// and lower case are the same. Everything else could be a name.
bool IsPublicWord(std::string_view word);

// Whether people name tables, chains and sets so everywhere ("filter", "INPUT").
bool IsConventionalName(std::string_view name);

}  // namespace vxa::redaction
