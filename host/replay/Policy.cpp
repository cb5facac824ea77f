// The settings of a policy that decide about fail-open.
#include "Policy.h"

#include <algorithm>
#include <stdexcept>

#include "SystemHealth/Config.h"
#include "vxa_core/json.h"

namespace replay {

namespace {

constexpr double kMostMinutes = 60;
constexpr char kMinimumDuration[] = "SYS_CONF_MIN_ACT_DURATION";
constexpr char kPort[] = "SYS_CONF_CONN_REFUSAL_PORT";
// A policy with nothing but one of these monitors, too.
constexpr const char* kOthers[] = {kMinimumDuration, kPort, "SYS_CONF_CONN_REFUSAL_OUTBOUND",
                                   "SYS_CONF_RECOVER_FACTOR", "SYS_CONF_UNLOAD_DRIVER"};

bool HasOther(const Settings& settings)
{
    for (const char* key : kOthers)
        if (settings(key)) return true;
    return false;
}

std::optional<double> NumberOf(const cJSON* policy, const char* key)
{
    const cJSON* const member = cJSON_GetObjectItem(policy, key);
    const cJSON* const value =
        cJSON_IsObject(member) ? cJSON_GetObjectItem(member, "value") : member;
    return cJSON_IsNumber(value) ? std::optional(value->valuedouble) : std::nullopt;
}

}  // namespace

Policy MakePolicy(const Settings& settings)
{
    Policy policy{};
    bool rates = false;
    for (const auto& metric : kMetrics) {
        const std::optional<double> threshold = settings(metric.setting);
        policy.thresholds[metric.metric] = threshold.value_or(0);
        policy.judged |= (threshold ? 1u : 0u) << metric.metric;
        rates = rates || (metric.is_rate && threshold);
    }
    // As the module does: a threshold for rates without a port switches monitoring off.
    policy.monitors =
        rates ? settings(kPort).has_value() : policy.judged != 0 || HasOther(settings);
    if (!settings(kMetrics[fc::kMetricInterval].setting)) {
        policy.thresholds[fc::kMetricInterval] = fc::kDefaultMaxIntervalS;
        policy.judged |= 1u << fc::kMetricInterval;
    }
    policy.minimum_minutes = static_cast<std::uint64_t>(std::clamp<double>(
        settings(kMinimumDuration).value_or(fc::kDefaultMinDurationMinutes), 0, kMostMinutes));
    return policy;
}

Policy ParsePolicy(std::string_view json)
{
    const VxaCore::Host::JsonItem policy(cJSON_ParseWithLength(json.data(), json.size()));
    if (!cJSON_IsObject(policy.get())) throw std::runtime_error("the policy is not a JSON object");
    return MakePolicy([&](const char* key) { return NumberOf(policy.get(), key); });
}

}  // namespace replay
