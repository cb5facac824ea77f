// A pair of classes that two libraries share by their header alone.
#pragma once

#include "SLB3/slb.h"

struct Held {
    const char* maker;
};
struct Owned {
    const char* maker;
};

SLB3_DECLARATION(Held, "Shared.Held", policy::NoDelete)
SLB3_DECLARATION(Owned, "Shared.Owned", policy::Default)
