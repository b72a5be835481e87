/* Makes the C library look as if it had no pselect: preloaded behind the agent, it is the next
 * definition the agent finds, and its resolver answers that there is none. */
#include <stddef.h>

typedef void (*AnyFunction)(void);

static AnyFunction noImplementation(void) { return NULL; }

void pselect(void) __attribute__((ifunc("noImplementation")));
