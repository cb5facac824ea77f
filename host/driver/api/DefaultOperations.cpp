// Default operations: what an engine returns for those that it does not implement.
#include <algorithm>
#include <cerrno>
#include <iterator>

#include "api/BoundedText.h"
#include "api/Engine.h"

namespace vxi {

namespace {

constexpr const char* kNotSupported = "not supported by this engine";

}  // namespace

void UnsupportedOperations::Fail()
{
    throw Error(-EOPNOTSUPP, kNotSupported);
}

int DefaultOperations::Capabilities(vxi_handle_ops_s*, vxi_capability_s* rows, unsigned int count)
{
    const auto copied = std::min<std::size_t>(count, std::size(kFacilityNames));
    for (std::size_t i = 0; i < copied; ++i) {
        rows[i].name = kFacilityNames[i];
        rows[i].available = 0;
        BoundedText(rows[i].detail).Plain(kNotSupported);
    }
    return static_cast<int>(std::size(kFacilityNames));
}

}  // namespace vxi
