// JSON diagnostic file with the settings in force.
#pragma once

#include "Export.h"

// Writes the settings in force, in the form of a policy, to
// /var/opt/vx_agent/diag/vx_filter_json.log. The file must be a regular file without other hard
// links, or not exist. Returns whether it was written.
FC_PUBLIC bool outputCloudConfig();
