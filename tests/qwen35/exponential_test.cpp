// The exponential of the kernel tables: its error over all floats, against the C library's in
// double precision, whose own error is 2^-29 of what is looked at here; the kernels made of it; and
// every table of this machine against the scalar one, bit for bit. And the logarithm of one plus an
// exponential.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <vector>

#include "qwen35/elementwise.h"
#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/qwen35/weight_rows.h"
#include "tests/support/instrumented.h"

namespace {

using qwen35::KernelTable;
using weight_rows::bits;
using weight_rows::randomFloats;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

const KernelTable& scalar() {
  static const KernelTable& table = *qwen35::supportedKernels().front();
  return table;
}

// The distance of neighbouring floats about a magnitude in the range of floats.
double unitInLastPlace(float value) {
  const uint32_t exponent = std::bit_cast<uint32_t>(value) >> 23 & 0xFF;
  const uint64_t unit = 1023 - 127 - 23 + std::max(exponent, 1u);
  return std::bit_cast<double>(unit << 52);
}

// Whether `actual` is within `units` in the last place of an exact value, and infinite exactly
// where that rounds to infinity.
template <typename Exact>
bool isWithin(double units, Exact exact, float actual) {
  const auto rounded = static_cast<float>(exact);
  if (std::isinf(rounded) || std::isinf(actual)) {
    return rounded == actual;
  }
  return std::abs(static_cast<Exact>(actual) - exact) < units * unitInLastPlace(rounded);
}

// Beyond 89 and -104.5 the result is infinity or zero, and next to zero it is 1.
bool isExponential(float x, float actual) {
  if (std::abs(x) <= 0x1p-25f) {
    return actual == 1.0f;
  }
  if (x > 89.0f) {
    return actual == kInfinity;
  }
  if (x < -104.5f) {
    return bits(actual) == 0;
  }
  return std::isnan(x) ? std::isnan(actual)
                       : isWithin(0.51, std::exp(static_cast<double>(x)), actual);
}

// Every step-th float from the one with all bits zero to the one with all bits set, in runs.
template <typename Visit>
void forAllFloats(uint64_t step, const Visit& visit) {
  constexpr uint64_t kRunFloats = 4096;
  const uint64_t count = (uint64_t{1} << 32) / step;
  const uint64_t runs = (count + kRunFloats - 1) / kRunFloats;
#pragma omp parallel for schedule(dynamic, 64)
  for (uint64_t run = 0; run < runs; ++run) {
    std::vector<float> x;
    x.reserve(kRunFloats);
    for (uint64_t i = run * kRunFloats; i < std::min((run + 1) * kRunFloats, count); ++i) {
      x.push_back(std::bit_cast<float>(static_cast<uint32_t>(i * step)));
    }
    visit(x);
  }
}

#ifdef NDEBUG
constexpr bool kSamples = kel::test::kInstrumented;
#else
constexpr bool kSamples = true;
#endif

void expectExponentials(const KernelTable& table, uint64_t step) {
  std::atomic<uint64_t> wrong{0};
  std::atomic<float> example{0.0f};
  forAllFloats(step, [&](const std::vector<float>& x) {
    std::vector<float> out(x.size());
    table.exponentials(x.data(), 0.0f, out.data(), x.size());
    for (size_t i = 0; i < x.size(); ++i) {
      if (!isExponential(x[i], out[i])) {
        ++wrong;
        example = x[i];
      }
    }
  });
  EXPECT_EQ(0u, wrong) << table.name << ": among others exp(" << std::hexfloat << example << ")";
}

TEST(Exponential, IsWithin51HundredthsOfAUnitOverAllFloats) {
  expectExponentials(qwen35::kernels(), kSamples ? 4099 : 1);
}

TEST(Exponential, IsTheSameOfEveryTable) {
  expectExponentials(scalar(), kSamples ? 65537 : 1021);
  forAllFloats(kSamples ? 65539 : 1019, [](const std::vector<float>& x) {
    std::vector<float> expected(x.size());
    scalar().exponentials(x.data(), 0.0f, expected.data(), x.size());
    for (const KernelTable* table : qwen35::testedTables()) {
      std::vector<float> out(x.size());
      table->exponentials(x.data(), 0.0f, out.data(), x.size());
      EXPECT_EQ(bits(expected), bits(out)) << table->name;
    }
  });
}

std::vector<float> exponentials(const KernelTable& table, const std::vector<float>& x) {
  std::vector<float> out(x.size());
  table.exponentials(x.data(), 0.0f, out.data(), x.size());
  return out;
}

TEST(Exponential, SpecialValues) {
  struct Known {
    float x;
    float exponential;
  };
  constexpr Known kKnown[] = {
      {0.0f, 1.0f},
      {-0.0f, 1.0f},
      {0x1p-149f, 1.0f},
      {-0x1p-149f, 1.0f},
      {1.0f, 0x1.5bf0a8p+1f},
      {0x1.62e42ep+6f, 0x1.ffff08p+127f},  // the last that is finite
      {0x1.62e430p+6f, kInfinity},
      {-0x1.9fe368p+6f, 0x1p-149f},  // the last that is not zero
      {-0x1.9fe36ap+6f, 0.0f},
      {0x1.fffffep+127f, kInfinity},
      {-0x1.fffffep+127f, 0.0f},
      {kInfinity, kInfinity},
      {-kInfinity, 0.0f},
      {NAN, NAN},
      {-NAN, NAN},
      {std::numeric_limits<float>::signaling_NaN(), NAN},
  };
  std::vector<float> x;
  std::vector<float> expected;
  for (const Known& known : kKnown) {
    x.push_back(known.x);
    expected.push_back(known.exponential);
  }
  for (const KernelTable* table : qwen35::testedTables()) {
    EXPECT_EQ(bits(expected), bits(exponentials(*table, x))) << table->name;
  }
}

// 1 + 2^-24 lies between two floats, of which 1 is the even one.
TEST(Exponential, ShiftIsSubtractedInSinglePrecision) {
  const std::vector<float> x(11, 1.0f);
  for (const KernelTable* table : qwen35::testedTables()) {
    std::vector<float> out(x.size());
    table->exponentials(x.data(), -0x1p-24f, out.data(), x.size());
    EXPECT_EQ(exponentials(scalar(), x), out) << table->name;
    table->exponentials(x.data(), 0.5f, out.data(), x.size());
    EXPECT_EQ(exponentials(scalar(), std::vector<float>(x.size(), 0.5f)), out) << table->name;
  }
}

// Magnitudes of all kinds, and what is no number, in a different place of a vector each time.
std::vector<float> values(size_t n, uint32_t seed) {
  constexpr float kUnusual[] = {0.0f,    -0.0f, 0x1p-149f, -0x1p-130f, 88.8f,      -88.8f, 104.0f,
                                -104.0f, 3e38f, -3e38f,    kInfinity,  -kInfinity, NAN};
  std::vector<float> out = randomFloats(n, seed, -12.0f, 12.0f);
  for (size_t i = seed % 7; i < n; i += 7) {
    out[i] = kUnusual[(i / 7 + seed) % std::size(kUnusual)];
  }
  return out;
}

// One of the elementwise kernels with two inputs, and what it gives for one element.
struct Gate {
  const char* name;
  void (*KernelTable::*kernel)(const float*, const float*, float*, size_t);
  float (*rule)(float x, float gate);
};

float logisticDivisor(float gate) {
  return 1.0f + exponentials(scalar(), {-gate}).front();
}

constexpr Gate kGates[] = {
    {"sigmoidGate", &KernelTable::sigmoidGate,
     [](float x, float gate) { return x / logisticDivisor(gate); }},
    {"siluGate", &KernelTable::siluGate,
     [](float x, float gate) {
       const float silu = gate / logisticDivisor(gate);
       return x * silu;
     }},
};

// Sizes of no vector, of less than one, of several and a rest, at addresses one float off.
TEST(Gates, EveryOperationIsRoundedInSinglePrecision) {
  constexpr float kGuard = 12345.0f;
  for (const Gate& gate : kGates) {
    for (size_t n = 0; n <= 67; ++n) {
      const auto seed = static_cast<uint32_t>(n);
      const std::vector<float> x = values(n + 1, 100 + seed);
      const std::vector<float> gates = values(n + 1, 200 + seed);
      std::vector<float> expected = {kGuard};
      for (size_t i = 1; i <= n; ++i) {
        expected.push_back(gate.rule(x[i], gates[i]));
      }
      expected.push_back(kGuard);
      for (const KernelTable* table : qwen35::testedTables()) {
        std::vector<float> out(n + 2, kGuard);
        (table->*gate.kernel)(x.data() + 1, gates.data() + 1, out.data() + 1, n);
        EXPECT_EQ(bits(expected), bits(out)) << table->name << " " << gate.name << " " << n;
      }
    }
  }
}

TEST(Gates, OutputMayBeEitherInput) {
  const std::vector<float> x = values(43, 1);
  const std::vector<float> gates = values(43, 2);
  for (const Gate& gate : kGates) {
    for (const KernelTable* table : qwen35::testedTables()) {
      const auto kernel = table->*gate.kernel;
      std::vector<float> apart(43);
      kernel(x.data(), gates.data(), apart.data(), 43);
      std::vector<float> first = x;
      kernel(first.data(), gates.data(), first.data(), 43);
      EXPECT_EQ(bits(apart), bits(first)) << table->name << " " << gate.name;
      std::vector<float> second = gates;
      kernel(x.data(), second.data(), second.data(), 43);
      EXPECT_EQ(bits(apart), bits(second)) << table->name << " " << gate.name;
      kernel(x.data(), x.data(), apart.data(), 43);
      first = x;
      kernel(first.data(), first.data(), first.data(), 43);
      EXPECT_EQ(bits(apart), bits(first)) << table->name << " " << gate.name;
    }
  }
}

TEST(Exponential, ShortRunsAtAnyAddressAndInPlaceAreTheSame) {
  constexpr float kGuard = 12345.0f;
  for (size_t n = 0; n <= 67; ++n) {
    const std::vector<float> x = values(n + 1, static_cast<uint32_t>(n));
    std::vector<float> expected = {kGuard};
    for (size_t i = 1; i <= n; ++i) {
      expected.push_back(exponentials(scalar(), {x[i] - 0.75f}).front());
    }
    expected.push_back(kGuard);
    for (const KernelTable* table : qwen35::testedTables()) {
      std::vector<float> out(n + 2, kGuard);
      table->exponentials(x.data() + 1, 0.75f, out.data() + 1, n);
      EXPECT_EQ(bits(expected), bits(out)) << table->name << " " << n;
      std::copy(x.begin() + 1, x.end(), out.begin() + 1);
      table->exponentials(out.data() + 1, 0.75f, out.data() + 1, n);
      EXPECT_EQ(bits(expected), bits(out)) << table->name << " " << n << ", in place";
    }
  }
}

// The logarithm is as good as rounded once from its exact value.
TEST(LogOnePlus, IsRoundedOnceOverAllPositiveFloats) {
  std::atomic<uint64_t> wrong{0};
  forAllFloats(kSamples ? 20011 : 1009, [&](const std::vector<float>& x) {
    for (const float value : x) {
      if (value >= 0.0f && value < kInfinity) {
        const long double exact = std::log1p(static_cast<long double>(value));
        wrong += !isWithin(0.5 + 0x1p-24, exact, qwen35::logOnePlus(value));
      }
    }
  });
  EXPECT_EQ(0u, wrong);
}

TEST(LogOnePlus, SpecialValues) {
  EXPECT_EQ(0u, bits(qwen35::logOnePlus(0.0f)));
  EXPECT_EQ(0x1p-149f, qwen35::logOnePlus(0x1p-149f));
  EXPECT_EQ(0x1.62e43p-1f, qwen35::logOnePlus(1.0f));
  EXPECT_TRUE(std::isnan(qwen35::logOnePlus(NAN)));
}

// An error of the exponential, relative to it, comes out no larger in the logarithm; but where the
// one is just above a power of two and the other just below, it counts twice as many units.
TEST(Softplus, IsWithinOneAndAHalfUnitsOverAllFloats) {
  std::atomic<uint64_t> wrong{0};
  forAllFloats(kSamples ? 20011 : 1009, [&](const std::vector<float>& x) {
    std::vector<float> out(x.size());
    qwen35::softplus(x.data(), out.data(), x.size());
    for (size_t i = 0; i < x.size(); ++i) {
      if (x[i] > 20.0f) {
        wrong += out[i] != x[i];
      } else if (std::isnan(x[i])) {
        wrong += !std::isnan(out[i]);
      } else {
        const long double exact = std::log1p(std::exp(static_cast<long double>(x[i])));
        wrong += !isWithin(0.5 + 2 * 0.51, exact, out[i]);
      }
    }
  });
  EXPECT_EQ(0u, wrong);
}

}  // namespace
