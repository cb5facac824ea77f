// Parses the settings of the simulated machine.
#include "engines/sim/Settings.h"

#include <algorithm>
#include <string>

#include "engines/TextParser.h"

namespace vxi::sim {

namespace {

constexpr std::uint64_t kPhaseTicksMax = 1000000000;

struct NumberSetting {
    std::string_view name;
    std::uint64_t Settings::*member;
    std::uint64_t least;
    std::uint64_t most;
};

constexpr NumberSetting kNumbers[] = {
    {"seed", &Settings::seed, 0, UINT64_MAX},
    {"port", &Settings::port, 0, 65535},
    {"cpus", &Settings::cpus, 1, 4096},
    {"memory_mb", &Settings::memory_mb, 64, 16777216},
    {"interval_s", &Settings::interval_s, 1, 3600},
    {"restart_ticks", &Settings::restart_ticks, 1, 1000000},
    {"uncounted", &Settings::uncounted, 0, 1000000000},
    {"flows", &Settings::flows, 0, 1000000},
    {"blacklist", &Settings::blacklist, 0, 65536},
    {"rules", &Settings::rules, 0, 100000},
};

struct ScenarioName {
    std::string_view name;
    Scenario scenario;
};

constexpr ScenarioName kScenarios[] = {
    {"idle", Scenario::kIdle},
    {"busy", Scenario::kBusy},
    {"overloaded", Scenario::kOverloaded},
    {"recovering", Scenario::kRecovering},
    {"closing", Scenario::kClosing},
    {"restarting", Scenario::kRestarting},
};

template <typename Row, std::size_t count>
const Row* FindRow(const Row (&rows)[count], std::string_view name)
{
    const Row* const end = rows + count;
    const Row* const found =
        std::find_if(rows, end, [&](const Row& row) { return row.name == name; });
    return found == end ? nullptr : found;
}

template <typename Row, std::size_t count>
std::string Names(const Row (&rows)[count])
{
    std::string names;
    for (const Row& row : rows) {
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    return names;
}

class SettingsParser : TextParser {
public:
    explicit SettingsParser(std::string_view text) : TextParser(text) {}

    Settings Parse()
    {
        Settings settings;
        ParseList([&] { ParseSetting(settings); });
        return settings;
    }

private:
    void ParseSetting(Settings& settings);
    std::vector<Phase> ParseTimeline();
    Phase ParsePhase();
    std::uint64_t ParseNumber(std::uint64_t least, std::uint64_t most);
    std::string_view TakeWord() { return TakeUntil("=,:/ "); }
};

void SettingsParser::ParseSetting(Settings& settings)
{
    const std::size_t begin = m_at;
    const std::string_view name = TakeWord();
    const NumberSetting* const number = FindRow(kNumbers, name);
    if (!number && name != "scenario") {
        Fail(begin, "scenario or one of " + Names(kNumbers));
    }
    Require('=');
    if (number) {
        settings.*number->member = ParseNumber(number->least, number->most);
    } else {
        settings.timeline = ParseTimeline();
    }
}

std::vector<Phase> SettingsParser::ParseTimeline()
{
    std::vector<Phase> phases;
    do {
        phases.push_back(ParsePhase());
    } while (Take('/'));
    return phases;
}

Phase SettingsParser::ParsePhase()
{
    const std::size_t begin = m_at;
    const ScenarioName* const row = FindRow(kScenarios, TakeWord());
    if (!row) {
        Fail(begin, "one of " + Names(kScenarios));
    }
    return {row->scenario, Take(':') ? ParseNumber(1, kPhaseTicksMax) : kDefaultPhaseTicks};
}

std::uint64_t SettingsParser::ParseNumber(std::uint64_t least, std::uint64_t most)
{
    const std::size_t begin = m_at;
    std::uint64_t number = 0;
    if (!TakeNumber(number) || number < least || number > most) {
        Fail(begin, "a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

}  // namespace

Settings ParseSettings(std::string_view text)
{
    return SettingsParser(text).Parse();
}

}  // namespace vxi::sim
