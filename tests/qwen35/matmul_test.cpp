// Products of matrices with inputs as wide as those of trained models, which span several chunks,
// spans and groups: on every kernel table, on one and several threads, against rows that are
// decoded and multiplied one by one with the scalar table.
#include "qwen35/matmul.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <list>
#include <numeric>
#include <span>
#include <string>
#include <vector>

#include "qwen35/context.h"
#include "qwen35/forward.h"
#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/qwen35/weight_rows.h"

namespace {

using kel::QuantType;
using kel::TensorView;
using qwen35::Arithmetic;
using qwen35::Context;
using qwen35::InputWords;
using qwen35::KernelTable;
using qwen35::Matmul;
using qwen35::MatmulInput;
using qwen35::QuantisedInput;
using weight_rows::bits;
using weight_rows::randomFloats;

constexpr Arithmetic kArithmetics[] = {Arithmetic::Batch, Arithmetic::SingleToken};
constexpr float kUntouched = 12345.0f;

const KernelTable& scalar() {
  return *qwen35::supportedKernels().front();
}

bool isKFormat(QuantType type) {
  return type == QuantType::Q4_K || type == QuantType::Q5_K;
}

// Random weights, and views of their first rows.
struct Weights {
  Weights(QuantType elementType, size_t nRows, size_t nCols, uint32_t seed)
      : type(elementType),
        rows(nRows),
        cols(nCols),
        data(weight_rows::randomRows(elementType, nRows, nCols, seed)) {}

  TensorView view(size_t nRows) const {
    TensorView out;
    out.data = data.data();
    out.type = type;
    out.rank = 2;
    out.dims[0] = cols;
    out.dims[1] = nRows;
    return out;
  }
  TensorView view() const { return view(rows); }

  const uint8_t* row(size_t r) const { return data.data() + r * (data.size() / rows); }

  QuantType type;
  size_t rows;
  size_t cols;
  std::vector<uint8_t> data;
};

// A model of nothing but a feed-forward width: what sizes a context. Refers to itself.
struct WidthModel {
  explicit WidthModel(size_t width, size_t nEmbd = 0) {
    gate.rank = 2;
    gate.dims[0] = nEmbd;
    gate.dims[1] = width;
    model.nEmbd = nEmbd;
    model.nHead = model.nHeadKv = model.ropeDim = 0;
    model.ssmGroups = model.ssmHeads = model.ssmInner = model.ssmDState = 0;
    model.layers.resize(1);
    model.layers[0].ffnGate = &gate;
  }
  WidthModel(const WidthModel&) = delete;
  WidthModel& operator=(const WidthModel&) = delete;

  TensorView gate;
  qwen35::Model model;
};

// Lets teams have three threads.
class ThreeThreads {
 public:
  ThreeThreads() : before(omp_get_max_threads()) { omp_set_num_threads(3); }
  ~ThreeThreads() { omp_set_num_threads(before); }
  ThreeThreads(const ThreeThreads&) = delete;
  ThreeThreads& operator=(const ThreeThreads&) = delete;

 private:
  int before;
};

// Contexts of one and three threads for every kernel table of this machine, and of three for the
// other tested ones. They keep what earlier products left in their buffers.
class Contexts {
 public:
  Contexts(size_t width, size_t maxTokens) {
    const WidthModel sizes(width);
    for (const KernelTable* table : qwen35::supportedKernels()) {
      all.emplace_back(sizes.model, qwen35::ContextOptions{maxTokens, 1, table});
    }
    for (const KernelTable* table : qwen35::testedTables()) {
      all.emplace_back(sizes.model, qwen35::ContextOptions{maxTokens, 3, table});
    }
  }

  std::list<Context>::iterator begin() { return all.begin(); }
  std::list<Context>::iterator end() { return all.end(); }

 private:
  ThreeThreads allowed;
  std::list<Context> all;
};

std::string label(Context& context, QuantType type, size_t cols) {
  return std::string(context.kernels().name) + " " + kel::quantTypeName(type) + " " +
         std::to_string(cols) + " threads " + std::to_string(context.team().maxThreads());
}

// One call for all products, as a pass makes it. x: [count][cols].
void multiply(Context& context, Arithmetic arithmetic, const float* x, size_t count, size_t cols,
              std::span<const Matmul> products) {
  const qwen35::Model model;
  context.team().run([&](qwen35::Team::Member& member) {
    const qwen35::Work w{context, member, model, count, arithmetic};
    const MatmulInput in = w.input(x, cols, products);
    w.prepare(in);
    w.multiply(in, products);
  });
}

// Room for a product, with a gap after every token that no product may write to.
class Output {
 public:
  Output(size_t nRows, size_t nTokens)
      : rows(nRows), count(nTokens), values((nRows + kGap) * nTokens, kUntouched) {}

  Matmul matmul(const TensorView& weights) { return {&weights, values.data(), rows + kGap}; }

  // Of the expected products [count][expectedRows], the first rows of every token.
  void expect(const std::vector<float>& expected, size_t expectedRows) const {
    for (size_t token = 0; token < count; ++token) {
      const float* want = expected.data() + token * expectedRows;
      std::vector<float> line(want, want + rows);
      line.insert(line.end(), kGap, kUntouched);
      const float* got = values.data() + token * (rows + kGap);
      EXPECT_EQ(bits(line), bits(std::vector<float>(got, got + rows + kGap))) << "token " << token;
    }
  }

 private:
  static constexpr size_t kGap = 3;

  size_t rows;
  size_t count;
  std::vector<float> values;
};

// Dot products of the decoded rows: [count][rows].
std::vector<float> decodedProducts(const Weights& weights, const float* x, size_t count) {
  std::vector<float> out(count * weights.rows);
  for (size_t r = 0; r < weights.rows; ++r) {
    const std::vector<float> row = weight_rows::decoded(weights.type, weights.row(r), weights.cols);
    for (size_t token = 0; token < count; ++token) {
      out[token * weights.rows + r] =
          scalar().dot(row.data(), x + token * weights.cols, weights.cols);
    }
  }
  return out;
}

// Quantised dot products: [count][rows].
std::vector<float> quantisedProducts(const Weights& weights, const float* x, size_t count) {
  std::vector<float> out(count * weights.rows);
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(weights.cols));
  const auto product = weights.type == QuantType::Q4_K ? scalar().rowsQ4K : scalar().rowsQ5K;
  for (size_t token = 0; token < count; ++token) {
    EXPECT_TRUE(scalar().quantiseInput(x + token * weights.cols, weights.cols, groups.data()));
    product(weights.data.data(), groups.data(), out.data() + token * weights.rows, weights.rows,
            weights.cols);
  }
  return out;
}

std::vector<float> expectedProducts(const Weights& weights, Arithmetic arithmetic, const float* x,
                                    size_t count) {
  return isKFormat(weights.type) && arithmetic == Arithmetic::SingleToken
             ? quantisedProducts(weights, x, count)
             : decodedProducts(weights, x, count);
}

// The products of the first `rows` rows with the first `count` of x's tokens.
void expectProducts(Context& context, const Weights& weights, size_t rows, Arithmetic arithmetic,
                    const std::vector<float>& x, size_t count, const std::vector<float>& expected) {
  SCOPED_TRACE(label(context, weights.type, weights.cols) + " rows " + std::to_string(rows) +
               " tokens " + std::to_string(count));
  Output y(rows, count);
  const TensorView view = weights.view(rows);
  const Matmul product[] = {y.matmul(view)};
  multiply(context, arithmetic, x.data(), count, weights.cols, product);
  y.expect(expected, weights.rows);
}

// All counts for 33 rows, which divide into no whole pieces; 130 rows, for tiles.
void expectProductsOfEveryShape(Contexts& contexts, QuantType type, size_t cols) {
  constexpr size_t kTokens = 5;
  const Weights weights(type, 130, cols, 1);
  const std::vector<float> x = randomFloats(kTokens * cols, 2);
  for (const Arithmetic arithmetic : kArithmetics) {
    const std::vector<float> expected = expectedProducts(weights, arithmetic, x.data(), kTokens);
    for (Context& context : contexts) {
      for (const size_t count : {1, 2, 3, 5}) {
        expectProducts(context, weights, 33, arithmetic, x, count, expected);
      }
      for (const size_t count : {1, 3}) {
        expectProducts(context, weights, 130, arithmetic, x, count, expected);
      }
    }
  }
}

TEST(Multiply, OfFloatRowsIsTheDotProductOfAnyWidth) {
  Contexts contexts(9216, 5);
  for (const QuantType type : {QuantType::F32, QuantType::BF16}) {
    for (const size_t cols : {3, 8, 264, 600, 1280, 4104, 8456, 9216}) {
      expectProductsOfEveryShape(contexts, type, cols);
    }
  }
}

TEST(Multiply, OfQ80RowsIsTheDotProductOfTheDecodedRows) {
  Contexts contexts(9216, 5);
  for (const size_t cols : {1280, 1312, 4352, 9216}) {
    expectProductsOfEveryShape(contexts, QuantType::Q8_0, cols);
  }
}

TEST(Multiply, OfKFormatRowsIsTheDotProductOfTheArithmetic) {
  Contexts contexts(9216, 5);
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    for (const size_t cols : {1280, 4352, 9216}) {
      expectProductsOfEveryShape(contexts, type, cols);
    }
  }
}

// Pieces of several tiles, the last of them with a tile that is not full.
TEST(Multiply, OfManyRowsIsTheDotProductOfEveryRow) {
  Contexts contexts(4352, 3);
  for (const QuantType type : {QuantType::BF16, QuantType::Q4_K}) {
    const Weights weights(type, 530, 4352, 3);
    const std::vector<float> x = randomFloats(3 * 4352, 4);
    const std::vector<float> expected = expectedProducts(weights, Arithmetic::Batch, x.data(), 3);
    for (Context& context : contexts) {
      expectProducts(context, weights, 530, Arithmetic::Batch, x, 3, expected);
    }
  }
}

TEST(Multiply, OfAFullBatchIsTheDotProductForEveryToken) {
  Contexts contexts(4352, qwen35::kBatchTokens);
  const std::vector<float> x = randomFloats(qwen35::kBatchTokens * 4352, 5);
  for (const QuantType type : {QuantType::F32, QuantType::Q5_K}) {
    const Weights weights(type, 33, 4352, 6);
    const std::vector<float> expected =
        expectedProducts(weights, Arithmetic::Batch, x.data(), qwen35::kBatchTokens);
    for (Context& context : contexts) {
      expectProducts(context, weights, 33, Arithmetic::Batch, x, qwen35::kBatchTokens, expected);
    }
  }
}

// With these counts some of the matrices multiply tiles, some quantised inputs, and some neither.
TEST(Multiply, OfFourMatricesGivesEachTheProductThatItHasAlone) {
  constexpr size_t kCols = 1280;
  const std::vector<Weights> matrices = {{QuantType::Q5_K, 18, kCols, 7},
                                         {QuantType::F32, 33, kCols, 8},
                                         {QuantType::Q4_K, 130, kCols, 9},
                                         {QuantType::Q8_0, 1, kCols, 10}};
  const std::vector<float> x = randomFloats(5 * kCols, 11);
  std::vector<TensorView> views;
  views.reserve(matrices.size());
  for (const Weights& weights : matrices) {
    views.push_back(weights.view());
  }
  Contexts contexts(kCols, 5);
  for (const Arithmetic arithmetic : kArithmetics) {
    for (const size_t count : {1, 2, 3, 5}) {
      for (Context& context : contexts) {
        std::vector<Output> outputs;
        std::vector<Matmul> products;
        for (const Weights& weights : matrices) {
          outputs.emplace_back(weights.rows, count);
          products.push_back(outputs.back().matmul(views[products.size()]));
        }
        multiply(context, arithmetic, x.data(), count, kCols, products);
        for (size_t i = 0; i < matrices.size(); ++i) {
          SCOPED_TRACE(label(context, matrices[i].type, kCols) + " tokens " +
                       std::to_string(count));
          outputs[i].expect(expectedProducts(matrices[i], arithmetic, x.data(), count),
                            matrices[i].rows);
        }
      }
    }
  }
}

// Floats carry an infinity on as they should, and the other tokens keep the bits that they have
// without it.
TEST(Multiply, TakesDecodedRowsForATokenThatIsNotFiniteAndForNoOther) {
  constexpr size_t kCols = 4352;
  constexpr size_t kTokens = 5;
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  std::vector<float> x = randomFloats(kTokens * kCols, 12);
  x[1 * kCols + 4300] = kInfinity;  // in the last group
  x[3 * kCols + 5] = -kInfinity;    // in the first
  Contexts contexts(kCols, kTokens);
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    const Weights weights(type, 33, kCols, 13);
    std::vector<float> expected;
    for (size_t token = 0; token < kTokens; ++token) {
      const float* input = x.data() + token * kCols;
      const std::vector<float> sums = token % 2 == 1 ? decodedProducts(weights, input, 1)
                                                     : quantisedProducts(weights, input, 1);
      expected.insert(expected.end(), sums.begin(), sums.end());
    }
    for (Context& context : contexts) {
      expectProducts(context, weights, 33, Arithmetic::SingleToken, x, kTokens, expected);
    }
  }
}

TEST(Multiply, KeepsANegativeZeroWhereItAssigns) {
  const float row[] = {-1e-30f, -1e-30f, -1e-30f};
  const float x[] = {1e-30f, 1e-30f, 1e-30f};
  TensorView view;
  view.data = row;
  view.type = QuantType::F32;
  view.rank = 2;
  view.dims[0] = 3;
  view.dims[1] = 1;
  Contexts contexts(3, 1);
  for (Context& context : contexts) {
    float assigned = kUntouched;
    float added = kUntouched;
    const Matmul products[] = {{&view, &assigned, 1, /*assigns=*/true}, {&view, &added, 1}};
    multiply(context, Arithmetic::SingleToken, x, 1, 3, products);
    EXPECT_EQ(bits(-0.0f), bits(assigned)) << context.kernels().name;
    EXPECT_EQ(bits(0.0f), bits(added)) << context.kernels().name;
  }
}

// What prepareInput is to fill for three tokens of 2.5 groups each, one group with an infinity.
class PreparedInput : public ::testing::Test {
 protected:
  static constexpr size_t kTokens = 3;
  static constexpr size_t kCols = 2560;
  static constexpr size_t kGroups = 3;

  PreparedInput()
      : x(randomFloats(kTokens * kCols, 14)),
        packed(kTokens * kCols, kUntouched),
        quantised(kTokens * kGroups),
        finite(kTokens * kGroups, 2),
        words(kTokens * kCols / qwen35::kChunk) {
    x[kCols + 1500] = std::numeric_limits<float>::infinity();
    const Weights tiles(QuantType::F32, 1, kCols, 15);
    const Weights quantisedRows(QuantType::Q4_K, 1, kCols, 16);
    const TensorView views[] = {tiles.view(), quantisedRows.view()};
    const Matmul users[] = {{&views[0], nullptr, 1}, {&views[1], nullptr, 1}};
    in = qwen35::matmulInput(x.data(), kTokens, kCols, Arithmetic::SingleToken, users,
                             {packed.data(), quantised.data(), finite.data(), words.data()});
  }

  void expectFilled(const KernelTable& table) const {
    for (size_t token = 0; token < kTokens; ++token) {
      const auto [first, stride] = qwen35::packedChunk(table, kTokens, token);
      for (size_t i = 0; i < kCols; ++i) {
        const size_t chunk = i / qwen35::kChunk * kTokens * qwen35::kChunk;
        const size_t place = i % qwen35::kChunk / 8 * stride + i % 8;
        ASSERT_EQ(bits(x[token * kCols + i]), bits(packed[chunk + first + place]))
            << token << " " << i;
      }
      for (size_t g = 0; g < kGroups; ++g) {
        const size_t at = token * kGroups + g;
        const bool isFinite = token != 1 || g != 1;
        EXPECT_EQ(isFinite ? 1 : 0, finite[at]) << token << " " << g;
        if (isFinite) {
          expectGroup(table, token, g);
          if (table.splitInput != nullptr) {
            expectWords(token, g);
          }
        }
      }
    }
  }

  std::vector<float> x;
  std::vector<float> packed;
  std::vector<QuantisedInput> quantised;
  std::vector<uint8_t> finite;
  std::vector<InputWords> words;
  MatmulInput in;

 private:
  static std::vector<float> sumsOf(const QuantisedInput& group) {
    std::vector<float> out;
    for (const auto& line : group.sums) {
      out.insert(out.end(), std::begin(line), std::end(line));
    }
    return out;
  }

  void expectGroup(const KernelTable& table, size_t token, size_t g) const {
    const size_t begin = g * qwen35::kGroupLen;
    QuantisedInput expected;
    EXPECT_TRUE(table.quantiseInput(x.data() + token * kCols + begin,
                                    std::min(qwen35::kGroupLen, kCols - begin), &expected));
    const QuantisedInput& got = quantised[token * kGroups + g];
    EXPECT_EQ(0, std::memcmp(expected.limbs, got.limbs, sizeof got.limbs)) << token << " " << g;
    EXPECT_EQ(sumsOf(expected), sumsOf(got)) << token << " " << g;
    EXPECT_TRUE(std::ranges::equal(expected.scales, got.scales)) << token << " " << g;
  }

  // Element i of a sub-block: the even ones first, then the odd ones.
  void expectWords(size_t token, size_t g) const {
    const size_t blocks = std::min<size_t>(4, kCols / qwen35::kChunk - 4 * g);
    for (size_t b = 0; b < blocks; ++b) {
      const InputWords& got = words[(4 * g + b) * kTokens + token];
      for (size_t pair = 0; pair < 4; ++pair) {
        const auto& limbs = quantised[token * kGroups + g].limbs[b][pair];
        for (size_t i = 0; i < 64; ++i) {
          const auto limb = [&](size_t p) { return limbs[p][i / 32][i % 32]; };
          const size_t at = i / 32 * 16 + i % 32 / 2;
          ASSERT_EQ(256 * limb(2) + limb(1) + 128, got.middle[pair][i % 2][at]) << b << " " << i;
          ASSERT_EQ(limb(3), got.upper[pair][i % 2][at]) << b << " " << i;
        }
      }
    }
  }
};

TEST_F(PreparedInput, GroupByGroupHasAllForms) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (size_t token = 0; token < kTokens; ++token) {
      for (size_t at = 0; at < kCols; at += qwen35::kGroupLen) {
        qwen35::prepareInput(*table, in, token, at, std::min(qwen35::kGroupLen, kCols - at));
      }
    }
    expectFilled(*table);
  }
}

TEST_F(PreparedInput, SeveralGroupsAtOnceHasAllForms) {
  for (const KernelTable* table : qwen35::testedTables()) {
    qwen35::prepareInput(*table, in, 0, 0, kCols);
    qwen35::prepareInput(*table, in, 1, 0, qwen35::kGroupLen);
    qwen35::prepareInput(*table, in, 1, qwen35::kGroupLen, kCols - qwen35::kGroupLen);
    qwen35::prepareInput(*table, in, 2, 0, kCols);
    expectFilled(*table);
  }
}

// A feed-forward block of one type, and what it makes of an input in double precision.
class FeedForward {
 public:
  FeedForward(QuantType type, size_t nEmbd, size_t width)
      : gate(type, width, nEmbd, 17), up(type, width, nEmbd, 18), down(type, nEmbd, width, 19) {
    layer.ffnGate = &views[0];
    layer.ffnUp = &views[1];
    layer.ffnDown = &views[2];
  }
  FeedForward(const FeedForward&) = delete;
  FeedForward& operator=(const FeedForward&) = delete;

  std::vector<double> exact(const std::vector<double>& x) const {
    std::vector<double> activated = products(gate, x);
    const std::vector<double> factors = products(up, x);
    for (size_t i = 0; i < activated.size(); ++i) {
      activated[i] *= factors[i] / (1.0 + std::exp(-activated[i]));
    }
    return products(down, activated);
  }

  const Weights gate;
  const Weights up;
  const Weights down;
  qwen35::Layer layer;

 private:
  static std::vector<double> products(const Weights& weights, const std::vector<double>& x) {
    std::vector<double> out;
    for (size_t r = 0; r < weights.rows; ++r) {
      const std::vector<float> row =
          weight_rows::decoded(weights.type, weights.row(r), weights.cols);
      out.push_back(std::inner_product(row.begin(), row.end(), x.begin(), 0.0));
    }
    return out;
  }

  const TensorView views[3] = {gate.view(), up.view(), down.view()};
};

struct FfnShape {
  QuantType type;
  size_t nEmbd;
  size_t width;
};

TEST(FfnStep, OfAWideBlockIsCloseToDoublePrecision) {
  const ThreeThreads threads;
  for (const auto& [type, nEmbd, width] :
       {FfnShape{QuantType::F32, 40, 1300}, FfnShape{QuantType::Q4_K, 256, 2304}}) {
    FeedForward block(type, nEmbd, width);
    const std::vector<float> x = randomFloats(nEmbd, 20);
    std::vector<float> out(nEmbd + 1, kUntouched);
    qwen35::ffnStep(nEmbd, block.layer, x.data(), out.data());
    EXPECT_EQ(kUntouched, out.back());
    const std::vector<double> expected = block.exact({x.begin(), x.end()});
    double largest = 0.0;
    for (const double value : expected) {
      largest = std::max(largest, std::abs(value));
    }
    for (size_t i = 0; i < nEmbd; ++i) {
      EXPECT_NEAR(expected[i], out[i], 1e-5 * largest) << kel::quantTypeName(type) << " " << i;
    }
  }
}

TEST(FeedForward, OfSeveralTokensGivesTheBitsOfEachAlone) {
  constexpr size_t kTokens = 3;
  const ThreeThreads threads;
  for (const auto& [type, nEmbd, width] :
       {FfnShape{QuantType::F32, 40, 1304}, FfnShape{QuantType::Q4_K, 256, 2304}}) {
    FeedForward block(type, nEmbd, width);
    const std::vector<float> x = randomFloats(kTokens * nEmbd, 21);
    std::vector<float> alone(kTokens * nEmbd);
    for (size_t token = 0; token < kTokens; ++token) {
      qwen35::ffnStep(nEmbd, block.layer, x.data() + token * nEmbd, alone.data() + token * nEmbd);
    }
    const WidthModel sizes(width, nEmbd);
    Context context(sizes.model, {.maxTokens = kTokens});
    std::vector<float> together(kTokens * nEmbd, kUntouched);
    context.team().run([&](qwen35::Team::Member& member) {
      qwen35::feedForward({context, member, sizes.model, kTokens, Arithmetic::SingleToken},
                          block.layer, x.data(), together.data());
    });
    EXPECT_EQ(bits(alone), bits(together)) << kel::quantTypeName(type);
  }
}

}  // namespace
