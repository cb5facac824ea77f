// cJSON with owners, and positions for its errors.
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore {

struct JsonDelete {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using JsonItem = std::unique_ptr<cJSON, JsonDelete>;

struct JsonTextDelete {
    void operator()(char* text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextDelete>;

// Parses one value with nothing but white space after it; null when it is none.
// `text` must end in a NUL just behind it. `stop` is where reading failed.
JsonItem ParseJson(std::string_view text, std::size_t& stop);

// Both from 1; columns in characters.
struct JsonPlace {
    std::ptrdiff_t line;
    std::ptrdiff_t column;
};
JsonPlace PlaceOf(std::string_view text, std::size_t position);

}  // namespace VxaCore
