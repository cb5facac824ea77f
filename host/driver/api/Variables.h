// Former place of the header below.
#pragma once

#include "records/Variables.h"
