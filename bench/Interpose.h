// Marks a function of a benchmark program that replaces the C library's function of the same name,
// for the modules that the program loads as well.
#pragma once

#define BENCH_INTERPOSE extern "C" __attribute__((visibility("default")))
