// HTTP/2 read back from the two directions of a conversation (over TLS with ALPN "h2", or in
// clear text with prior knowledge; both begin with the client's connection preface): each stream
// an exchange of its own. Frames are read here; the header blocks are decompressed by nghttp2's
// HPACK decoder, one per direction, as the peers' own decoders did.
#pragma once

#include <string>
#include <vector>

#include "http_exchange.h"
#include "timed_stream.h"

namespace talvex {

bool beginsWithHttp2Preface(const std::string& bytes);

// The exchanges of the streams the client opened, in the order it opened them.
std::vector<HttpExchange> readHttp2(const TimedStream& client, const TimedStream& server);

}  // namespace talvex
