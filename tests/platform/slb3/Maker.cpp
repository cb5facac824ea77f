#define MODULE_NAME "maker"
#define MODULE_OPEN luaopen_slb3_maker
#include "SharedModule.h"
