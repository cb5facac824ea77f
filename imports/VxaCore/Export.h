// Symbol visibility of the host's core library.
#pragma once

#define VXA_CORE_API __attribute__((visibility("default")))
