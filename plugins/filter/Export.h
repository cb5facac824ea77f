// What the module exports by name; everything else is hidden.
#pragma once

#define FC_PUBLIC __attribute__((visibility("default")))
