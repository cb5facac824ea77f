// Former names of what the header below declares.
#pragma once

#include "records/FlowShares.h"

#define kMostFlows kFlowsMax
#define FlowRoom FlowShares
#define ShareFlowRoom ShareFlowTable
