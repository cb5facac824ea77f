// Where the records of each table came from, as the headings of their dumps show it.
#pragma once

namespace vxi {

enum class Table : unsigned { kStatistics, kConntrack, kBlacklist, kConnStates, kCount };

struct TableOrigin {
    const char* engine = nullptr;  // null before this thread's first fetch of the table
    char source[160] = "";
};

// Dispatch: this thread is about to fetch the table from the engine, whose name lives for the
// process.
void BeginFetch(Table table, const char* engine);

// Called by the engine that serves the table: its source and what is missing in it, as in
// "/proc/net/snmp" or "ctnetlink, incomplete: interrupted every time". Kept per thread: a record
// is dumped on the thread that fetched it.
void SetTableSource(Table table, const char* format, ...) __attribute__((format(printf, 2, 3)));

const TableOrigin& LastOrigin(Table table);

}  // namespace vxi
