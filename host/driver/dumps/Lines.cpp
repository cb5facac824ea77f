#include "dumps/Lines.h"

namespace vxi {

void Lines::flush()
{
    if (used_ > 0) {
        buffer_[used_] = '\0';
        sink_->print(sink_, "%s", buffer_);
    }
    used_ = 0;
    line_ = 0;
}

}  // namespace vxi
