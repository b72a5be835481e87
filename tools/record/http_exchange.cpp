#include "http_exchange.h"

#include <strings.h>

namespace talvex {

const HttpHeader* HttpMessagePart::header(const char* name) const {
  for (const HttpHeader& h : headers) {
    if (strcasecmp(h.name.c_str(), name) == 0) return &h;
  }
  return nullptr;
}

}  // namespace talvex
