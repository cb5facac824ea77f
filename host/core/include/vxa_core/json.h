// cJSON values with an owner.
#pragma once

#include <cjson/cJSON.h>

#include <memory>

namespace VxaCore::Host {

struct JsonDelete {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using JsonItem = std::unique_ptr<cJSON, JsonDelete>;

}  // namespace VxaCore::Host
