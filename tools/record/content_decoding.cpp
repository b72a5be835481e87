#include "content_decoding.h"

#include <brotli/decode.h>
#include <ctype.h>
#include <zlib.h>

#include <vector>

namespace talvex {

namespace {

const size_t kPiece = 64 * 1024;

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// zlib's inflate with the given window bits: 15 + 32 for gzip or zlib (told apart by the header),
// -15 for a raw deflate stream.
bool inflateWith(int windowBits, const std::string& in, std::string* out, std::string* why, size_t longest) {
  z_stream z{};
  if (inflateInit2(&z, windowBits) != Z_OK) {
    *why = "zlib could not start";
    return false;
  }
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  z.avail_in = static_cast<uInt>(in.size());
  std::vector<char> piece(kPiece);
  int status = Z_OK;
  out->clear();
  while (status == Z_OK) {
    z.next_out = reinterpret_cast<Bytef*>(piece.data());
    z.avail_out = static_cast<uInt>(piece.size());
    status = inflate(&z, Z_NO_FLUSH);
    out->append(piece.data(), piece.size() - z.avail_out);
    if (out->size() > longest) {
      out->resize(longest);
      *why = "decoded, cut at " + std::to_string(longest) + " bytes";
      inflateEnd(&z);
      return false;
    }
    // A gzip body may hold several members one after another.
    if (status == Z_STREAM_END && z.avail_in > 0 && windowBits > 15) status = inflateReset(&z);
    if (status == Z_BUF_ERROR && z.avail_in == 0) break;
  }
  inflateEnd(&z);
  if (status != Z_STREAM_END) {
    *why = status == Z_BUF_ERROR || status == Z_OK ? "the compressed body is cut off" : "the body is not what its Content-Encoding says";
    return false;
  }
  return true;
}

bool brotliDecode(const std::string& in, std::string* out, std::string* why, size_t longest) {
  BrotliDecoderState* state = BrotliDecoderCreateInstance(nullptr, nullptr, nullptr);
  if (state == nullptr) {
    *why = "brotli could not start";
    return false;
  }
  const uint8_t* next = reinterpret_cast<const uint8_t*>(in.data());
  size_t available = in.size();
  std::vector<uint8_t> piece(kPiece);
  out->clear();
  BrotliDecoderResult result = BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT;
  while (result == BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT) {
    uint8_t* to = piece.data();
    size_t room = piece.size();
    result = BrotliDecoderDecompressStream(state, &available, &next, &room, &to, nullptr);
    out->append(reinterpret_cast<const char*>(piece.data()), piece.size() - room);
    if (out->size() > longest) {
      out->resize(longest);
      *why = "decoded, cut at " + std::to_string(longest) + " bytes";
      BrotliDecoderDestroyInstance(state);
      return false;
    }
  }
  BrotliDecoderDestroyInstance(state);
  if (result != BROTLI_DECODER_RESULT_SUCCESS) {
    *why = result == BROTLI_DECODER_RESULT_NEEDS_MORE_INPUT ? "the compressed body is cut off"
                                                            : "the body is not what its Content-Encoding says";
    return false;
  }
  return true;
}

bool undo(const std::string& coding, const std::string& in, std::string* out, std::string* why, size_t longest) {
  if (coding == "gzip" || coding == "x-gzip") return inflateWith(15 + 32, in, out, why, longest);
  if (coding == "deflate") {
    // Meant as zlib-wrapped; some servers send it raw.
    if (inflateWith(15, in, out, why, longest)) return true;
    std::string rawWhy;
    if (inflateWith(-15, in, out, &rawWhy, longest)) return true;
    return false;
  }
  if (coding == "br") return brotliDecode(in, out, why, longest);
  *why = "a Content-Encoding this reader does not know: " + coding;
  return false;
}

}  // namespace

bool decodeContent(const std::string& contentEncoding, const std::string& body, std::string* decoded,
                   std::string* why, size_t longest) {
  std::vector<std::string> codings;
  size_t start = 0;
  const std::string value = lowered(contentEncoding);
  while (start <= value.size()) {
    size_t comma = value.find(',', start);
    if (comma == std::string::npos) comma = value.size();
    std::string coding = value.substr(start, comma - start);
    const size_t b = coding.find_first_not_of(" \t"), e = coding.find_last_not_of(" \t");
    coding = b == std::string::npos ? "" : coding.substr(b, e - b + 1);
    if (!coding.empty() && coding != "identity") codings.push_back(coding);
    start = comma + 1;
  }
  std::string current = body;
  for (auto c = codings.rbegin(); c != codings.rend(); ++c) {
    std::string next;
    if (!undo(*c, current, &next, why, longest)) {
      // What decoded up to the bound is the start of the body; anything else is not the body.
      const bool cut = next.size() == longest;
      *decoded = cut ? next : body;
      return false;
    }
    current.swap(next);
  }
  decoded->swap(current);
  return true;
}

}  // namespace talvex
