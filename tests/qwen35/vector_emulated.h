// The layer of vector operations of lanes.h in plain loops: the lane-generic kernels then run on
// any machine, in the shape of any instruction set, and a sanitizer sees every access. Written from
// the description in lanes.h, so that it also says what the layers of the instruction sets have to
// do.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "quant/blocks.h"
#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

// Registers of `groups` times eight floats and of the codes of as many sub-blocks.
template <size_t groups, size_t tileRows, size_t tileInputs, size_t headersAtOnce>
struct Emulated {
  using Half = Emulated<1, tileRows, tileInputs, headersAtOnce>;
  static constexpr size_t kGroups = groups;
  static constexpr size_t kFloats = groups * kLanes;
  static constexpr size_t kTileRows = tileRows;
  static constexpr size_t kTileInputs = tileInputs;
  static constexpr size_t kHeadersAtOnce = headersAtOnce;

  static void prefetch(uintptr_t /*address*/) {}
  static void prefetchToL2(uintptr_t /*address*/) {}

  // ---- floats

  struct F {
    float lane[kFloats];
  };

  static F zero() { return all(0.0f); }
  static F all(float x) {
    return eachLane([&](size_t) { return x; });
  }
  static F load(const float* at) {
    return eachLane([&](size_t i) { return at[i]; });
  }
  static F loadRepeated(const float* at) {
    return eachLane([&](size_t i) { return at[i % kLanes]; });
  }
  static void store(float* at, F x) { std::memcpy(at, x.lane, sizeof x.lane); }
  static F add(F a, F b) {
    return eachLane([&](size_t i) { return a.lane[i] + b.lane[i]; });
  }
  static F sub(F a, F b) {
    return eachLane([&](size_t i) { return a.lane[i] - b.lane[i]; });
  }
  static F mul(F a, F b) {
    return eachLane([&](size_t i) { return a.lane[i] * b.lane[i]; });
  }
  static F div(F a, F b) {
    return eachLane([&](size_t i) { return a.lane[i] / b.lane[i]; });
  }
  static F atLeast(F low, F x) {
    return eachLane([&](size_t i) { return x.lane[i] < low.lane[i] ? low.lane[i] : x.lane[i]; });
  }
  static F atMost(F high, F x) {
    return eachLane([&](size_t i) { return x.lane[i] > high.lane[i] ? high.lane[i] : x.lane[i]; });
  }
  static F fma(F a, F b, F c) {
    return eachLane([&](size_t i) { return std::fma(a.lane[i], b.lane[i], c.lane[i]); });
  }
  static void storeRounded(int32_t* at, F x) {
    for (size_t i = 0; i < kFloats; ++i) {
      at[i] = static_cast<int32_t>(std::nearbyint(x.lane[i]));
    }
  }

  static float fold(F x) {
    const float* l = x.lane;
    return ((l[0] + l[4]) + (l[2] + l[6])) + ((l[1] + l[5]) + (l[3] + l[7]));
  }

  static F loadF32(const uint8_t* at) {
    F out;
    std::memcpy(out.lane, at, sizeof out.lane);
    return out;
  }
  static F loadBf16(const uint8_t* at) {
    return eachLane([&](size_t i) {
      const uint8_t bytes[] = {0, 0, at[2 * i], at[2 * i + 1]};
      float value;
      std::memcpy(&value, bytes, sizeof value);
      return value;
    });
  }
  static F loadSignedBytes(const uint8_t* at) {
    return eachLane([&](size_t i) { return static_cast<float>(static_cast<int8_t>(at[i])); });
  }
  static float loadHalf(const uint8_t* at) {
    uint16_t half;
    std::memcpy(&half, at, sizeof half);
    return kel::quant::f16ToF32(half);
  }
  static void loadHalves(const uint8_t* at, float& first, float& second) {
    first = loadHalf(at);
    second = loadHalf(at + 2);
  }

  // ---- doubles

  struct D {
    double lane[kFloats];
  };

  static D toDouble(F x) {
    return eachDouble([&](size_t i) { return static_cast<double>(x.lane[i]); });
  }
  static F toFloat(D x) {
    return eachLane([&](size_t i) { return static_cast<float>(x.lane[i]); });
  }
  static D allD(double x) {
    return eachDouble([&](size_t) { return x; });
  }
  static D subD(D a, D b) {
    return eachDouble([&](size_t i) { return a.lane[i] - b.lane[i]; });
  }
  static D fmaD(D a, D b, D c) {
    return eachDouble([&](size_t i) { return std::fma(a.lane[i], b.lane[i], c.lane[i]); });
  }
  static D addExponent(D p, D t) {
    return eachDouble([&](size_t i) {
      uint64_t bits;
      uint64_t exponent;
      std::memcpy(&bits, &p.lane[i], sizeof bits);
      std::memcpy(&exponent, &t.lane[i], sizeof exponent);
      bits += exponent << 52;
      double sum;
      std::memcpy(&sum, &bits, sizeof sum);
      return sum;
    });
  }

  template <typename Value>
  static D eachDouble(const Value& value) {
    D out;
    for (size_t i = 0; i < kFloats; ++i) {
      out.lane[i] = value(i);
    }
    return out;
  }

  // ---- codes

  static constexpr size_t kSubBlocks = groups;

  struct Bytes {
    uint8_t code[kSubBlocks][kSubLen];
  };

  static Bytes loadBytes(const void* at) {
    Bytes out;
    std::memcpy(out.code, at, sizeof out.code);
    return out;
  }
  static Bytes loadFifths(const void* at) {
    Bytes out;
    for (auto& half : out.code) {
      std::memcpy(half, at, sizeof half);
    }
    return out;
  }
  static Bytes lowNibbles(Bytes x) {
    return eachCode([&](size_t half, size_t i) { return x.code[half][i] % 16; });
  }
  static Bytes highNibbles(Bytes x) {
    return eachCode([&](size_t half, size_t i) { return x.code[half][i] / 16; });
  }
  template <int kSub>
  static Bytes withFifths(Bytes codes, Bytes bits) {
    return eachCode([&](size_t half, size_t i) {
      const int sub = kSub + 2 * static_cast<int>(half);
      const bool isSet = (bits.code[half][i] & (1 << sub)) != 0;
      return codes.code[half][i] + (isSet ? 16 : 0);
    });
  }

  struct Codes {
    explicit Codes(const SubBlockCodes& codes) {
      for (size_t sub = 0; sub < kSubBlocksOfBlock; ++sub) {
        const uint64_t four = sub < 4 ? codes.first : codes.last;
        scale[sub] = static_cast<uint8_t>(four >> (8 * (sub % 4)));
        minimum[sub] = static_cast<uint8_t>(four >> (8 * (sub % 4) + 32));
      }
    }

    F scales() const {
      return eachLane([&](size_t i) { return static_cast<float>(scale[i]); });
    }
    F minimums() const {
      return eachLane([&](size_t i) { return static_cast<float>(minimum[i]); });
    }

    uint8_t scale[kSubBlocksOfBlock];
    uint8_t minimum[kSubBlocksOfBlock];
  };

  template <int kBits>
  struct Levels {
    Levels(float scaleOfCodes, float minimum) : scale(scaleOfCodes), min(minimum) {}

    void store(typename Half::Bytes codes, float* at) const {
      for (size_t i = 0; i < kSubLen; ++i) {
        at[i] = std::fma(static_cast<float>(codes.code[0][i]), scale, -min);
      }
    }

    float scale;
    float min;
  };

  // ---- products of codes and limbs

  struct Scales {
    Scales() = default;
    explicit Scales(const typename Half::Codes& codes) {
      std::memcpy(scale, codes.scale, sizeof scale);
    }

    uint8_t scale[kSubBlocksOfBlock];
  };

  struct Sums {
    int32_t lane[kSubBlocks][kLanes];
  };

  static Sums zeroSums() { return {}; }

  template <int kSub>
  static Sums addProducts(Sums sums, Bytes low, Bytes high, const int8_t* lowLimbs,
                          const int8_t* highLimbs, const Scales& scales) {
    for (size_t half = 0; half < kSubBlocks; ++half) {
      const size_t sub = kSub + 2 * half;
      for (size_t i = 0; i < kSubLen; ++i) {
        const size_t at = half * kSubLen + i;
        sums.lane[half][i / 4] += scales.scale[sub] * low.code[half][i] * lowLimbs[at] +
                                  scales.scale[sub + 1] * high.code[half][i] * highLimbs[at];
      }
    }
    return sums;
  }

  static typename Half::F toFloats(Sums sums) {
    return Half::eachLane([&](size_t i) {
      int32_t sum = 0;
      for (size_t half = 0; half < kSubBlocks; ++half) {
        sum += sums.lane[half][i];
      }
      return static_cast<float>(sum);
    });
  }

  // ---- products of words

  static constexpr bool kTakesWords = kSubBlocks == 2;

  struct WordScales : Scales {
    using Scales::Scales;

    template <int kSub>
    Bytes of() const {
      return eachCode(
          [&](size_t half, size_t i) { return i % 2 == 0 ? this->scale[kSub + 2 * half] : 0; });
    }
  };

  struct Words {
    int16_t word[kSubBlocks][kSubLen / 2];
  };

  static Words evenWords(Bytes codes, Bytes scales) {
    return eachWord(
        [&](size_t half, size_t i) { return codes.code[half][2 * i] * scales.code[half][2 * i]; });
  }
  static Words oddWords(Bytes codes, Bytes scales) {
    return eachWord([&](size_t half, size_t i) {
      return codes.code[half][2 * i + 1] * scales.code[half][2 * i];
    });
  }
  static Words allWords(int16_t word) {
    return eachWord([&](size_t, size_t) { return word; });
  }
  static Words loadWords(const int16_t* at) {
    return eachWord([&](size_t half, size_t i) { return at[half * (kSubLen / 2) + i]; });
  }
  static Words addedWords(Words a, Words b) {
    return eachWord([&](size_t half, size_t i) { return a.word[half][i] + b.word[half][i]; });
  }

  // Sums on the way may pass 2^31 and come back.
  static Sums addWordProducts(Sums sums, Words words, Words inputs) {
    for (size_t half = 0; half < kSubBlocks; ++half) {
      for (size_t i = 0; i < kSubLen / 2; ++i) {
        const int32_t product = words.word[half][i] * inputs.word[half][i];
        int32_t& lane = sums.lane[half][i / 2];
        lane = static_cast<int32_t>(static_cast<uint32_t>(lane) + static_cast<uint32_t>(product));
      }
    }
    return sums;
  }

  template <typename Value>
  static Words eachWord(const Value& value) {
    Words out;
    for (size_t half = 0; half < kSubBlocks; ++half) {
      for (size_t i = 0; i < kSubLen / 2; ++i) {
        out.word[half][i] = static_cast<int16_t>(value(half, i));
      }
    }
    return out;
  }

  // ---- loops

  template <typename Value>
  static F eachLane(const Value& value) {
    F out;
    for (size_t i = 0; i < kFloats; ++i) {
      out.lane[i] = value(i);
    }
    return out;
  }

  template <typename Value>
  static Bytes eachCode(const Value& value) {
    Bytes out;
    for (size_t half = 0; half < kSubBlocks; ++half) {
      for (size_t i = 0; i < kSubLen; ++i) {
        out.code[half][i] = static_cast<uint8_t>(value(half, i));
      }
    }
    return out;
  }
};

}  // namespace

}  // namespace qwen35
