// Forwards to the headers that it was split into.
#pragma once

#include "api/BoundedText.h"
#include "api/Error.h"
#include "api/HostMessages.h"
