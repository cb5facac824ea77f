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

constexpr Number numbers[] = {
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

constexpr Name scenarios[] = {
    {"idle", Scenario::idle},
    {"busy", Scenario::busy},
    {"overloaded", Scenario::overloaded},
    {"recovering", Scenario::recovering},
    {"closing", Scenario::closing},
    {"restarting", Scenario::restarting},
};

template <typename Row, std::size_t count>
const Row* row_named(const Row (&rows)[count], std::string_view name)
{
    const Row* const end = rows + count;
    const Row* const found =
        std::find_if(rows, end, [&](const Row& row) { return row.name == name; });
    return found == end ? nullptr : found;
}

template <typename Row, std::size_t count>
std::string names_of(const Row (&rows)[count])
{
    std::string names;
    for (const Row& row : rows) {
        names.append(names.empty() ? "" : ", ").append(row.name);
    }
    return names;
}

class Reader {
public:
    Reader(std::string_view text, SettingsError& error) : text_(text), error_(error) {}

    bool read(Settings& settings);

private:
    bool setting(Settings& settings);
    bool timeline(std::vector<Phase>& phases);
    bool phase(Phase& phase);
    bool number(std::uint64_t least, std::uint64_t most, std::uint64_t& value);

    std::string_view word()
    {
        const std::size_t begin = at_;
        at_ = std::min(text_.find_first_of("=,:/ ", at_), text_.size());
        return text_.substr(begin, at_ - begin);
    }
    bool take(char c)
    {
        const bool there = at_ < text_.size() && text_[at_] == c;
        at_ += there;
        return there;
    }
    void skip_blanks() { at_ = std::min(text_.find_first_not_of(" \t\n", at_), text_.size()); }
    bool failed(std::size_t position, std::string expected)
    {
        error_ = {position, std::move(expected)};
        return false;
    }

    std::string_view text_;
    SettingsError& error_;
    std::size_t at_ = 0;
};

bool Reader::read(Settings& settings)
{
    skip_blanks();
    while (at_ < text_.size()) {
        if (!setting(settings)) {
            return false;
        }
        skip_blanks();
        if (at_ < text_.size() && !take(',')) {
            return failed(at_, "\",\" or the end");
        }
        skip_blanks();
    }
    return true;
}

bool Reader::setting(Settings& settings)
{
    const std::size_t begin = at_;
    const std::string_view key = word();
    const Number* row = row_named(numbers, key);
    if (!row && key != "scenario") {
        return failed(begin, "scenario or one of " + names_of(numbers));
    }
    if (!take('=')) {
        return failed(at_, "\"=\"");
    }
    return row ? number(row->least, row->most, settings.*row->member) : timeline(settings.timeline);
}

bool Reader::timeline(std::vector<Phase>& phases)
{
    phases.clear();
    do {
        phases.emplace_back();
        if (!phase(phases.back())) {
            return false;
        }
    } while (take('/'));
    return true;
}

bool Reader::phase(Phase& phase)
{
    const std::size_t begin = at_;
    const Name* row = row_named(scenarios, word());
    if (!row) {
        return failed(begin, "one of " + names_of(scenarios));
    }
    phase = {row->scenario, default_phase_ticks};
    return !take(':') || number(1, 1000000000, phase.ticks);
}

bool Reader::number(std::uint64_t least, std::uint64_t most, std::uint64_t& value)
{
    const char* const begin = text_.data() + at_;
    std::uint64_t parsed = 0;
    const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), parsed);
    if (error != std::errc() || parsed < least || parsed > most) {
        return failed(at_,
                      "a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    at_ += static_cast<std::size_t>(end - begin);
    value = parsed;
    return true;
}

}  // namespace

bool read_settings(std::string_view text, Settings& settings, SettingsError& error)
{
    Settings changed = settings;
    if (!Reader(text, error).read(changed)) {
        return false;
    }
    settings = std::move(changed);
    return true;
}

}  // namespace vxi::sim
