#include "tests/convert/reference_blocks.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

namespace kel::test {

namespace {

double half(const uint8_t* p) {
  const int bits = p[0] | p[1] << 8;
  const int exponent = bits >> 10 & 31;
  const double mantissa = bits & 1023;
  const double magnitude =
      exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25);
  return (bits & 0x8000) != 0 ? -magnitude : magnitude;
}

template <typename T>
double number(const uint8_t* p) {
  T value;
  std::memcpy(&value, p, sizeof(value));
  return value;
}

int bit(const uint8_t* bytes, size_t i) {
  return bytes[i / 8] >> (i % 8) & 1;
}

// Low nibbles hold the first half of the elements, high nibbles the second.
int nibble(const uint8_t* codes, size_t i, size_t perHalf) {
  return i < perHalf ? codes[i] & 15 : codes[i - perHalf] >> 4;
}

// 6-bit scale and minimum j of the 12 packed bytes of Q4_K and Q5_K.
int packedScale(const uint8_t* s, size_t j) {
  return j < 4 ? s[j] & 63 : (s[j + 4] & 15) | (s[j - 4] >> 6) << 4;
}
int packedMin(const uint8_t* s, size_t j) {
  return j < 4 ? s[j + 4] & 63 : s[j + 4] >> 4 | (s[j] >> 6) << 4;
}

double bf16(const uint8_t* p) {
  const uint32_t bits = static_cast<uint32_t>(p[0] | p[1] << 8) << 16;
  float value = 0;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

double q4k(const uint8_t* b, size_t i) {
  const int code = nibble(b + 16 + i / 64 * 32, i % 64, 32);
  return half(b) * packedScale(b + 4, i / 32) * code - half(b + 2) * packedMin(b + 4, i / 32);
}

double q5k(const uint8_t* b, size_t i) {
  const int high = b[16 + i % 32] >> (i / 32) & 1;
  const int code = nibble(b + 48 + i / 64 * 32, i % 64, 32) + 16 * high;
  return half(b) * packedScale(b + 4, i / 32) * code - half(b + 2) * packedMin(b + 4, i / 32);
}

double q6k(const uint8_t* b, size_t i) {
  const size_t inHalf = i % 128;
  const uint8_t* low = b + 64 * (i / 128) + inHalf % 64;
  const uint8_t* high = b + 128 + 32 * (i / 128) + inHalf % 32;
  const int code = (inHalf < 64 ? *low & 15 : *low >> 4) + (*high >> (inHalf / 32 * 2) & 3) * 16;
  return half(b + 208) * static_cast<int8_t>(b[192 + i / 16]) * (code - 32);
}

double q2k(const uint8_t* b, size_t i) {
  const int code = b[16 + i / 128 * 32 + i % 32] >> (i % 128 / 32 * 2) & 3;
  const int scale = b[i / 16];
  return half(b + 80) * (scale & 15) * code - half(b + 82) * (scale >> 4);
}

double q3k(const uint8_t* b, size_t i) {
  const int low = b[32 + i / 128 * 32 + i % 32] >> (i % 128 / 32 * 2) & 3;
  const bool high = (b[i % 32] >> (i / 32) & 1) != 0;
  const uint8_t* s = b + 96;
  const size_t j = i / 16;
  const int scale = (j < 8 ? s[j] & 15 : s[j - 8] >> 4) + (s[8 + j % 4] >> (2 * (j / 4)) & 3) * 16;
  return half(b + 108) * (scale - 32) * (high ? low : low - 4);
}

constexpr uint32_t kMxfp4 = 39;

constexpr int kTable[16] = {-127, -104, -83, -65, -49, -35, -22, -10,
                            1,    13,   25,  38,  53,  69,  89,  113};

double iq4xs(const uint8_t* b, size_t i) {
  const size_t sub = i / 32;
  const int low = b[4 + sub / 2] >> (4 * (sub % 2)) & 15;
  const int high = (b[2] | b[3] << 8) >> (2 * sub) & 3;
  return half(b) * (low + 16 * high - 32) * kTable[nibble(b + 8 + 16 * sub, i % 32, 16)];
}

// Sign, two bits of exponent with bias 1, one bit of mantissa; exponent 0 is subnormal.
double e2m1(int code) {
  const int exponent = code >> 1 & 3;
  const double mantissa = (code & 1) / 2.0;
  const double magnitude = exponent == 0 ? mantissa : std::ldexp(1 + mantissa, exponent - 1);
  return (code & 8) != 0 ? -magnitude : magnitude;
}

double mxfp4(const uint8_t* b, size_t i) {
  return std::ldexp(e2m1(nibble(b + 1, i, 16)), b[0] - 127);
}

}  // namespace

std::vector<double> ReferenceFormat::decodeAll(const Bytes& blocks) const {
  std::vector<double> values;
  for (size_t at = 0; at + blockBytes <= blocks.size(); at += blockBytes) {
    for (size_t i = 0; i < blockLen; ++i) {
      values.push_back(value(blocks.data() + at, i));
    }
  }
  return values;
}

const std::vector<ReferenceFormat>& referenceFormats() {
  using P = const uint8_t*;
  static const std::vector<ReferenceFormat> kFormats = {
      {"F32", 0, 1, 4, true, {}, [](P b, size_t) { return number<float>(b); }},
      {"F16", 1, 1, 2, false, {0}, [](P b, size_t) { return half(b); }},
      {"BF16", 30, 1, 2, true, {}, [](P b, size_t) { return bf16(b); }},
      {"Q4_0",
       2,
       32,
       18,
       false,
       {0},
       [](P b, size_t i) { return (nibble(b + 2, i, 16) - 8) * half(b); }},
      {"Q4_1",
       3,
       32,
       20,
       false,
       {0, 2},
       [](P b, size_t i) { return nibble(b + 4, i, 16) * half(b) + half(b + 2); }},
      {"Q5_0",
       6,
       32,
       22,
       false,
       {0},
       [](P b, size_t i) { return (nibble(b + 6, i, 16) + 16 * bit(b + 2, i) - 16) * half(b); }},
      {"Q5_1",
       7,
       32,
       24,
       false,
       {0, 2},
       [](P b, size_t i) {
         return (nibble(b + 8, i, 16) + 16 * bit(b + 4, i)) * half(b) + half(b + 2);
       }},
      {"Q8_0",
       8,
       32,
       34,
       true,
       {0},
       [](P b, size_t i) { return static_cast<int8_t>(b[2 + i]) * half(b); }},
      {"Q2_K", 10, 256, 84, false, {80, 82}, q2k},
      {"Q3_K", 11, 256, 110, false, {108}, q3k},
      {"Q4_K", 12, 256, 144, true, {0, 2}, q4k},
      {"Q5_K", 13, 256, 176, true, {0, 2}, q5k},
      {"Q6_K", 14, 256, 210, false, {208}, q6k},
      {"IQ4_NL",
       20,
       32,
       18,
       false,
       {0},
       [](P b, size_t i) { return kTable[nibble(b + 2, i, 16)] * half(b); }},
      {"IQ4_XS", 23, 256, 136, false, {0}, iq4xs},
      {"MXFP4", kMxfp4, 32, 17, false, {}, mxfp4},
  };
  return kFormats;
}

const ReferenceFormat& formatNamed(const std::string& name) {
  for (const ReferenceFormat& format : referenceFormats()) {
    if (name == format.name) {
      return format;
    }
  }
  throw std::out_of_range(name);
}

Bytes randomBlocks(const ReferenceFormat& format, size_t elements, std::mt19937& random) {
  Bytes bytes(elements / format.blockLen * format.blockBytes);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
  }
  for (size_t at = 0; at < bytes.size(); at += format.blockBytes) {
    // Between 2^-7 and 2^-6, either sign.
    for (const size_t field : format.halfFields) {
      bytes[at + field + 1] = static_cast<uint8_t>((bytes[at + field + 1] & 0x83) | 8 << 2);
    }
    if (format.ggufType == kMxfp4) {
      bytes[at] = static_cast<uint8_t>(120 + bytes[at] % 4);  // 2^-7 to 2^-4
    }
    // Plain floats: exponents about 1.
    if (format.blockLen == 1 && format.halfFields.empty()) {
      bytes[at + format.blockBytes - 1] = static_cast<uint8_t>((bytes[at] & 0x80) | 0x3F);
      bytes[at + format.blockBytes - 2] &= 0x7F;
    }
  }
  return bytes;
}

}  // namespace kel::test
