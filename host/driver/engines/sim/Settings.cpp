#include "engines/sim/Settings.h"

#include <algorithm>
#include <charconv>

namespace vxi::sim {

namespace {

struct Number {
    std::string_view name;
    std::uint64_t Settings::*member;
    std::uint64_t least;
    std::uint64_t most;
};

constexpr Number kNumbers[] = {
    {"seed", &Settings::seed, 0, UINT64_MAX},
    {"port", &Settings::port, 0, 65535},
    {"cpus", &Settings::cpus, 1, 4096},
    {"memory_mb", &Settings::memory_mb, 64, 16777216},
    {"interval_s", &Settings::interval_s, 1, 3600},
    {"restart_ticks", &Settings::restart_ticks, 1, 1000000},
    {"flows", &Settings::flows, 0, 1000000},
    {"blacklist", &Settings::blacklist, 0, 65536},
    {"rules", &Settings::rules, 0, 100000},
};

struct Name {
    std::string_view name;
    Scenario scenario;
};

constexpr Name kScenarios[] = {
    {"idle", Scenario::kIdle},
    {"busy", Scenario::kBusy},
    {"overloaded", Scenario::kOverloaded},
    {"recovering", Scenario::kRecovering},
    {"closing", Scenario::kClosing},
    {"restarting", Scenario::kRestarting},
};

template <typename Row, std::size_t count>
const Row* RowNamed(const Row (&rows)[count], std::string_view name)
{
    const Row* const end = rows + count;
    const Row* const found =
        std::find_if(rows, end, [&](const Row& row) { return row.name == name; });
    return found == end ? nullptr : found;
}

template <typename Row, std::size_t count>
std::string NamesOf(const Row (&rows)[count])
{
    std::string names;
    for (const Row& row : rows) {
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    return names;
}

class Reader {
public:
    Reader(std::string_view text, SettingsError& error) : m_text(text), m_error(error) {}

    bool Read(Settings& settings);

private:
    bool ParseSetting(Settings& settings);
    bool ParseTimeline(std::vector<Phase>& phases);
    bool ParsePhase(Phase& phase);
    bool ParseNumber(std::uint64_t least, std::uint64_t most, std::uint64_t& value);

    std::string_view Word()
    {
        const std::size_t begin = m_at;
        m_at = std::min(m_text.find_first_of("=,:/ ", m_at), m_text.size());
        return m_text.substr(begin, m_at - begin);
    }
    bool Take(char c)
    {
        const bool there = m_at < m_text.size() && m_text[m_at] == c;
        m_at += there;
        return there;
    }
    void SkipBlanks() { m_at = std::min(m_text.find_first_not_of(" \t\n", m_at), m_text.size()); }
    bool Failed(std::size_t position, std::string expected)
    {
        m_error = {position, std::move(expected)};
        return false;
    }

    std::string_view m_text;
    SettingsError& m_error;
    std::size_t m_at = 0;
};

bool Reader::Read(Settings& settings)
{
    SkipBlanks();
    while (m_at < m_text.size()) {
        if (!ParseSetting(settings)) {
            return false;
        }
        SkipBlanks();
        if (m_at < m_text.size() && !Take(',')) {
            return Failed(m_at, "\",\" or the end");
        }
        SkipBlanks();
    }
    return true;
}

bool Reader::ParseSetting(Settings& settings)
{
    const std::size_t begin = m_at;
    const std::string_view key = Word();
    const Number* row = RowNamed(kNumbers, key);
    if (!row && key != "scenario") {
        return Failed(begin, "scenario or one of " + NamesOf(kNumbers));
    }
    if (!Take('=')) {
        return Failed(m_at, "\"=\"");
    }
    return row ? ParseNumber(row->least, row->most, settings.*row->member)
               : ParseTimeline(settings.timeline);
}

bool Reader::ParseTimeline(std::vector<Phase>& phases)
{
    phases.clear();
    do {
        phases.emplace_back();
        if (!ParsePhase(phases.back())) {
            return false;
        }
    } while (Take('/'));
    return true;
}

bool Reader::ParsePhase(Phase& phase)
{
    const std::size_t begin = m_at;
    const Name* row = RowNamed(kScenarios, Word());
    if (!row) {
        return Failed(begin, "one of " + NamesOf(kScenarios));
    }
    phase = {row->scenario, kDefaultPhaseTicks};
    return !Take(':') || ParseNumber(1, 1000000000, phase.ticks);
}

bool Reader::ParseNumber(std::uint64_t least, std::uint64_t most, std::uint64_t& value)
{
    const char* const begin = m_text.data() + m_at;
    std::uint64_t parsed = 0;
    const auto [end, error] = std::from_chars(begin, m_text.data() + m_text.size(), parsed);
    if (error != std::errc() || parsed < least || parsed > most) {
        return Failed(m_at,
                      "a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    m_at += static_cast<std::size_t>(end - begin);
    value = parsed;
    return true;
}

}  // namespace

bool read_settings(std::string_view text, Settings& settings, SettingsError& error)
{
    Settings changed = settings;
    if (!Reader(text, error).Read(changed)) {
        return false;
    }
    settings = std::move(changed);
    return true;
}

}  // namespace vxi::sim
