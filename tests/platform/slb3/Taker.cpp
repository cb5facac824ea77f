#define MODULE_NAME "taker"
#define MODULE_OPEN luaopen_slb3_taker
#include "SharedModule.h"
