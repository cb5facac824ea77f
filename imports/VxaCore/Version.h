// Version of the binary interface of libvxa_core.
#pragma once

#include "VxaCore/Export.h"

namespace VxaCore {

// Version of the binary interface of the headers in VxaCore/ and vxa_core/, and the number in the
// soname. It changes when a program that was built with the former headers could fail: with a
// class or function that is removed or changes its members, parameters or meaning, and with
// another series of wxWidgets or form of SLB3's objects, which are passed across the boundary.
// Additional functions do not change it.
constexpr unsigned int kAbiVersion = 1;

// Returns the version that the library was built with, which its users compare with theirs before
// any other call. A library without this function has version 1: users that accept such a library
// refer to it as a weak symbol.
VXA_CORE_API unsigned int AbiVersion();

}  // namespace VxaCore
