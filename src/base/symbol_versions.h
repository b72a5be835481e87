// The oldest C library symbol versions of each x86 ABI: binding to them lets the agent load on old
// systems as well as this one, where many of these names also have a newer default version.
#pragma once

#if defined(__x86_64__)
#define TALVEX_GLIBC_FIRST "GLIBC_2.2.5"
#define TALVEX_GLIBC_2_1 "GLIBC_2.2.5"
// What the word size shows in: the start-up line and the recorder core's variable.
#define TALVEX_ABI_BITS "64"
#else
#define TALVEX_GLIBC_FIRST "GLIBC_2.0"
#define TALVEX_GLIBC_2_1 "GLIBC_2.1"
#define TALVEX_ABI_BITS "32"
#endif
