#include "interpose/companions.h"

#include "real/real_functions.h"

#define TALVEX_DEFINE_COMPANIONS(result, name, parameters, arguments, throws) \
  void Init##name() {                                                         \
    if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);               \
  }                                                                           \
  result Direct##name parameters {                                            \
    if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);               \
    return name##_ptr arguments;                                              \
  }
TALVEX_SOCKET_EXPORTS(TALVEX_DEFINE_COMPANIONS)
#undef TALVEX_DEFINE_COMPANIONS
