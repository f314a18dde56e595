// Agreement of f32ToF16 with the processor's conversion, NaN payloads aside.
#include <cpuid.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

#include "quant/blocks.h"
#include "tests/quant/f16c.h"

namespace {

using kel::quant::f16ToF32;
using kel::quant::f32ToF16;

bool isNanPattern(uint32_t h) {
  return (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0;
}

bool agrees(float x) {
  const uint16_t ours = f32ToF16(x);
  const uint16_t theirs = halfByProcessor(x);
  if (std::isnan(x)) {
    return isNanPattern(ours) && isNanPattern(theirs);
  }
  return ours == theirs;
}

class HalfByProcessor : public testing::Test {
 protected:
  void SetUp() override {
    // The AVX question includes whether the system saves the wide registers.
    unsigned eax = 0;
    unsigned ebx = 0;
    unsigned ecx = 0;
    unsigned edx = 0;
    const bool known = __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0;
    if (!known || (ecx & bit_F16C) == 0 || __builtin_cpu_supports("avx") == 0) {
      GTEST_SKIP() << "this processor has no half-precision conversion";
    }
  }
};

TEST_F(HalfByProcessor, AgreesOnTenMillionRandomFloats) {
  std::mt19937 random(2);
  for (int i = 0; i < 10'000'000; ++i) {
    auto bits = static_cast<uint32_t>(random());
    // Every other value has an exponent of the half-precision range, where rounding happens.
    if (i % 2 == 0) {
      const auto exponent = static_cast<uint32_t>(99 + random() % 46);
      bits = (bits & 0x807FFFFFU) | exponent << 23;
    }
    ASSERT_TRUE(agrees(std::bit_cast<float>(bits))) << std::hex << bits;
  }
}

TEST_F(HalfByProcessor, AgreesOnEveryHalfTieAndNeighbour) {
  for (uint32_t h = 0; h <= 0xFFFF; ++h) {
    const float x = f16ToF32(static_cast<uint16_t>(h));
    ASSERT_TRUE(agrees(x)) << h;
    if ((h & 0x7C00) == 0x7C00) {
      continue;
    }
    const float next = (h & 0x7FFF) == 0x7BFF ? std::copysign(65536.0F, x)
                                              : f16ToF32(static_cast<uint16_t>(h + 1));
    const float tie = x / 2 + next / 2;
    const float infinity = std::copysign(INFINITY, x);
    for (const float y : {tie, std::nextafter(tie, 0.0F), std::nextafter(tie, infinity),
                          std::nextafter(x, 0.0F), std::nextafter(x, infinity)}) {
      ASSERT_TRUE(agrees(y)) << std::hex << std::bit_cast<uint32_t>(y);
    }
  }
}

}  // namespace
