// The public calls that dispatch performs on an engine, by name.
#pragma once

#include <iterator>
#include <optional>
#include <string_view>

namespace vxi {

enum class Call : unsigned {
#define CALL(Name, name) k##Name,
#define OPERATION(Name, name, parameters) k##Name,
#include "api/operations.def"
};

inline constexpr const char* kCallNames[] = {
#define CALL(Name, name) "vxi_" #name,
#define OPERATION(Name, name, parameters) "vxi_" #name,
#include "api/operations.def"
};

constexpr const char* CallName(Call call)
{
    return kCallNames[static_cast<unsigned>(call)];
}

// Empty when no call has that name.
inline std::optional<Call> FindCall(std::string_view name)
{
    for (unsigned i = 0; i < std::size(kCallNames); ++i) {
        if (name == kCallNames[i]) {
            return static_cast<Call>(i);
        }
    }
    return std::nullopt;
}

}  // namespace vxi
