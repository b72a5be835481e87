#include "content_decoding.h"

#include <brotli/encode.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

namespace {

// zlib's deflate with the given window bits: 15 + 16 gzip, 15 zlib, -15 raw.
std::string deflated(const std::string& text, int windowBits) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, text.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = reinterpret_cast<Bytef*>(&out[0]);
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

std::string brotli(const std::string& text) {
  size_t size = BrotliEncoderMaxCompressedSize(text.size()) + 64;
  std::string out(size, '\0');
  BrotliEncoderCompress(BROTLI_DEFAULT_QUALITY, BROTLI_DEFAULT_WINDOW, BROTLI_MODE_TEXT, text.size(),
                        reinterpret_cast<const uint8_t*>(text.data()), &size, reinterpret_cast<uint8_t*>(&out[0]));
  out.resize(size);
  return out;
}

const std::string kText = [] {
  std::string t;
  for (int i = 0; i < 500; ++i) t += "a line that compresses, number " + std::to_string(i) + "\n";
  return t;
}();

TEST(ContentDecoding, EachCodingIsUndone) {
  std::string out, why;
  EXPECT_TRUE(talvex::decodeContent("gzip", deflated(kText, 31), &out, &why));
  EXPECT_EQ(out, kText);
  EXPECT_TRUE(talvex::decodeContent("x-gzip", deflated(kText, 31), &out, &why));
  EXPECT_EQ(out, kText);
  EXPECT_TRUE(talvex::decodeContent("deflate", deflated(kText, 15), &out, &why));
  EXPECT_EQ(out, kText);
  // Raw deflate, as some servers send "deflate".
  EXPECT_TRUE(talvex::decodeContent("Deflate", deflated(kText, -15), &out, &why));
  EXPECT_EQ(out, kText);
  EXPECT_TRUE(talvex::decodeContent("br", brotli(kText), &out, &why));
  EXPECT_EQ(out, kText);
  EXPECT_TRUE(talvex::decodeContent("", kText, &out, &why));
  EXPECT_EQ(out, kText);
  EXPECT_TRUE(talvex::decodeContent("identity", kText, &out, &why));
  EXPECT_EQ(out, kText);
}

TEST(ContentDecoding, SeveralCodingsAreUndoneLastFirst) {
  std::string out, why;
  EXPECT_TRUE(talvex::decodeContent("gzip, br", brotli(deflated(kText, 31)), &out, &why));
  EXPECT_EQ(out, kText);
  // Two gzip members one after the other are one body.
  EXPECT_TRUE(talvex::decodeContent("gzip", deflated("one ", 31) + deflated("two", 31), &out, &why));
  EXPECT_EQ(out, "one two");
}

TEST(ContentDecoding, WhatCannotBeUndoneIsSaidAndTheBodyKept) {
  std::string out, why;
  EXPECT_FALSE(talvex::decodeContent("gzip", "not gzip at all", &out, &why));
  EXPECT_EQ(why, "the body is not what its Content-Encoding says");
  EXPECT_EQ(out, "not gzip at all");
  const std::string packed = deflated(kText, 31);
  EXPECT_FALSE(talvex::decodeContent("gzip", packed.substr(0, packed.size() / 2), &out, &why));
  EXPECT_EQ(why, "the compressed body is cut off");
  EXPECT_FALSE(talvex::decodeContent("br", brotli(kText).substr(0, 20), &out, &why));
  EXPECT_EQ(why, "the compressed body is cut off");
  EXPECT_FALSE(talvex::decodeContent("zstd", "x", &out, &why));
  EXPECT_EQ(why, "a Content-Encoding this reader does not know: zstd");
  EXPECT_EQ(out, "x");
}

TEST(ContentDecoding, ABodyThatDecodesBeyondTheBoundIsCutThere) {
  // Ten megabytes of zeros pack into about ten kilobytes: a small body standing for a huge one.
  const std::string zeros(10u << 20, '\0');
  std::string out, why;
  EXPECT_FALSE(talvex::decodeContent("gzip", deflated(zeros, 31), &out, &why, 1u << 20));
  EXPECT_EQ(why, "decoded, cut at 1048576 bytes");
  EXPECT_EQ(out, std::string(1u << 20, '\0'));
  EXPECT_FALSE(talvex::decodeContent("br", brotli(zeros), &out, &why, 1u << 20));
  EXPECT_EQ(why, "decoded, cut at 1048576 bytes");
  EXPECT_EQ(out.size(), 1u << 20);
  EXPECT_TRUE(talvex::decodeContent("gzip", deflated(zeros, 31), &out, &why));
  EXPECT_EQ(out.size(), zeros.size());
  EXPECT_EQ(talvex::kLongestDecodedBody, 64u << 20);
}

}  // namespace
