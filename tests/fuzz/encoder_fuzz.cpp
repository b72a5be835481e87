// Feeds arbitrary bytes to the message encoder and holds its output to a plain escaper written
// for the purpose: any difference, or any memory error the sanitizers see, stops the run.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>

#include <string>

#include "message/print_buffer.h"
#include "reference_escape.h"

namespace {

void expect(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "encoder differs from the reference: %s\n", what);
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string expected = " data_AS=\"" + referenceEscape(data, size) + "\"";
  {
    PrintBuffer buffer;
    buffer.appendAttr(RMA_DATA, reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
    expect(buffer.complete(), "whole text");
    expect(std::string(buffer.toString(), buffer.length()) == expected, "one buffer");
  }
  {
    // The same bytes in vectors split where the first byte says.
    const size_t cut = data[0] % size;
    iovec vectors[2] = {{const_cast<uint8_t*>(data), cut}, {const_cast<uint8_t*>(data) + cut, size - cut}};
    PrintBuffer buffer;
    buffer.appendAttr(RMA_DATA, vectors, 2, static_cast<uint64_t>(size));
    expect(std::string(buffer.toString(), buffer.length()) == expected, "vectors");
    // Held by reference with text after it, and escaped into its place later.
    PrintBuffer held;
    held.appendHeldAttr(RMA_DATA, vectors, 2, static_cast<uint64_t>(size));
    held.append("/>", 2);
    held.releasePayload();
    expect(std::string(held.toString(), held.length()) == expected + "/>", "held vectors");
  }
  return 0;
}
