// The version of the library's binary interface.
#include "VxaCore/Version.h"

unsigned int VxaCore::AbiVersion()
{
    return kAbiVersion;
}
