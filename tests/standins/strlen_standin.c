/* A library that defines strlen of its own: a lookup of strlen in it, through the agent, must
 * still give the C library's. */
#include <stddef.h>

size_t strlen(const char* text) {
  (void)text;
  return 0;
}
