// Dumps filter variables. docs/diagnostic-texts.md describes the format.
#include "dumps/LineWriter.h"
#include "records/Variables.h"
#include "vxi/vxi.h"

namespace vxi {

namespace {

void WriteVariable(LineWriter& lines, const vxa_filter_variable_s& variable)
{
    lines.Number(variable.number).Text(" ");
    if (const char* const name = VariableName(variable.number)) {
        lines.Text(name).Text(" ");
    } else {
        lines.Text("variable/").Number(variable.number).Text(" ");
    }
    if (variable.value == VXA_FILTER_VARIABLE_ABSENT) {
        lines.Text("absent");
    } else {
        const bool saturated = variable.value == VXA_FILTER_VARIABLE_ABSENT - 1;
        lines.Number(variable.value).Text(saturated ? " or more" : "");
    }
    lines.EndLine();
}

}  // namespace

}  // namespace vxi

// There is one style so far.
void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int)
{
    vxi::Dump(sink, variable, vxi::WriteVariable);
}
