// Keeps the origin of each thread's latest tables.
#include "records/TableOrigin.h"

#include <cstdarg>

#include "vxi/vxi.h"

namespace vxi {

namespace {

thread_local TableOrigin origins[static_cast<unsigned>(Table::kCount)];

TableOrigin& Origin(Table table)
{
    return origins[static_cast<unsigned>(table)];
}

}  // namespace

void BeginFetch(Table table, const char* engine)
{
    TableOrigin& origin = Origin(table);
    // The fill requests after a size or count request keep its source.
    if (origin.engine != engine) {
        origin.source[0] = '\0';
    }
    origin.engine = engine;
}

void SetTableSource(Table table, const char* format, ...)
{
    TableOrigin& origin = Origin(table);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(origin.source, sizeof origin.source, format, arguments);
    va_end(arguments);
}

const TableOrigin& LastOrigin(Table table)
{
    return Origin(table);
}

}  // namespace vxi
