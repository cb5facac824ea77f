// Former place of the header below.
#pragma once

#include "records/ScanTarget.h"
