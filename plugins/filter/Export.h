// Marks what the module exports by name; everything else is hidden (see exports.map).
#pragma once

#define FC_PUBLIC __attribute__((visibility("default")))
