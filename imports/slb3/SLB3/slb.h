// Includes the whole library.
#pragma once

#include "SLB3/declaration.h"
#include "SLB3/implementation.h"
#include "SLB3/info.h"
