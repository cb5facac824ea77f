// Entries of the diagnostic archive.
#pragma once

#include <string_view>

#include "VxaCore/ZipOutputStream.h"

namespace Filter::Diagnostics {

// The entries' names. The bundle adds all but the connection states, in this order.
inline constexpr const wchar_t* kStatisticsEntry = L"vxa_stats.txt";
inline constexpr const wchar_t* kVariablesEntry = L"vxa_variables.txt";
inline constexpr const wchar_t* kConnTrackEntry = L"vxa_conn_track.txt";
inline constexpr const wchar_t* kBlacklistEntry = L"vxa_blacklist.txt";
inline constexpr const wchar_t* kRuleStatsEntry = L"vxa.tpf";
inline constexpr const wchar_t* kConnStatesEntry = L"vxa_conn_states.txt";

// Each adds an entry with these bytes and returns whether the archive accepted it. They differ
// in how the archive's directory marks the entry.
bool AddTextEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, std::string_view text);
bool AddBinaryEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, std::string_view bytes);

}  // namespace Filter::Diagnostics
