// The first line of a dump.
#include "dumps/Heading.h"

#include "vxi/engine.h"

namespace vxi {

const char* EngineName(const TableOrigin& origin)
{
    return origin.engine ? origin.engine : vxi_engine_name();
}

void WriteHeading(LineWriter& lines, const char* title, const TableOrigin& origin)
{
    lines.Text("# ").Text(title).Text(": ");
    lines.Escaped(origin.source[0] ? origin.source : "source unknown", true);
    lines.Text(" (engine ").Escaped(EngineName(origin), true).Text(")");
}

}  // namespace vxi
