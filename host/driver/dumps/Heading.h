// The first line of a dump: which table it shows and where that came from.
#pragma once

#include "dumps/LineWriter.h"
#include "records/TableOrigin.h"

namespace vxi {

// The engine that served the table, or would serve it.
const char* EngineName(const TableOrigin& origin);

// Writes "# TITLE: SOURCE (engine NAME)" and leaves the line open.
void WriteHeading(LineWriter& lines, const char* title, const TableOrigin& origin);

}  // namespace vxi
