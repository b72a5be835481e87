// A body as the program read it: its Content-Encoding undone (gzip, deflate, br, and several
// applied one after another), with zlib and Brotli's own decoders.
#pragma once

#include <stddef.h>

#include <string>

namespace talvex {

// A decoded body is cut at this length: a small compressed body can stand for an enormous one
// (a thousand to one is ordinary for gzip, far more for a crafted one), and the reader must not
// run out of memory on it.
const size_t kLongestDecodedBody = 64u << 20;

// Undoes the codings of a Content-Encoding value, last applied first. True with `decoded` filled
// in; false with `why` when a coding is unknown or the body is not what it says (then `decoded`
// holds the body as it came), or when it decodes beyond `longest` (then `decoded` holds its first
// `longest` bytes). "identity" and an empty value leave the body as it is.
bool decodeContent(const std::string& contentEncoding, const std::string& body, std::string* decoded,
                   std::string* why, size_t longest = kLongestDecodedBody);

}  // namespace talvex
