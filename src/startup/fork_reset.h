// After fork, only the forking thread lives on in the child: any agent lock another thread held
// at that moment would stay held for ever. The child makes every lock usable again.
#pragma once

// Registers the child's reset with the C library; start-up calls it once.
void installForkReset();
// What the child runs (exposed for tests).
void resetAgentLocksInChild();
