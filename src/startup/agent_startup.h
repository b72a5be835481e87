// The one-time lazy start-up that the first intercepted call runs.
#pragma once

#include "base/process_identity.h"

void GlobalInit();
void cleanSocketPointers();
void initializeStartup();
void pre_init_startup();
