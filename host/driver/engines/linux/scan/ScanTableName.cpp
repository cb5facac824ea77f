// Writes and parses the names of scan tables.
#include "engines/linux/scan/ScanTableName.h"

#include <charconv>

namespace vxi {

namespace {

constexpr std::string_view kPrefix = "vxa_scan_";
constexpr std::string_view kProcess = "_pid_";

}  // namespace

const char* DirectionName(std::uint32_t direction)
{
    return direction == VXI_SCAN_OUTBOUND ? "outbound" : "inbound";
}

std::string ScanTableName(const ScanTarget& target, pid_t process, unsigned attempt)
{
    std::string name(kPrefix);
    name += DirectionName(target.direction);
    name += '_' + std::to_string(target.port);
    name.append(kProcess).append(std::to_string(process));
    return attempt == 0 ? name : name + '_' + std::to_string(attempt);
}

std::optional<pid_t> ScanTableProcess(std::string_view name)
{
    const std::size_t found = name.find(kProcess);
    if (name.substr(0, kPrefix.size()) != kPrefix || found == name.npos) {
        return std::nullopt;
    }
    const char* const end = name.data() + name.size();
    pid_t process = 0;
    unsigned attempt = 0;
    auto parsed = std::from_chars(name.data() + found + kProcess.size(), end, process);
    if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == '_') {
        parsed = std::from_chars(parsed.ptr + 1, end, attempt);
    }
    const bool whole = parsed.ec == std::errc() && parsed.ptr == end;
    return whole && process > 0 ? std::optional(process) : std::nullopt;
}

}  // namespace vxi
