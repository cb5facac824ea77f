// Flushes lines to the sink.
#include "dumps/LineWriter.h"

namespace vxi {

void LineWriter::Flush()
{
    if (m_used > 0) {
        m_buffer[m_used] = '\0';
        m_sink->print(m_sink, "%s", m_buffer);
    }
    m_used = 0;
    m_line = 0;
}

}  // namespace vxi
