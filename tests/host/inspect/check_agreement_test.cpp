// zym check answers for whoever runs the file: of a file that states no shape it has to give the
// verdict of the runtime library, whatever is wrong with a tensor's record.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/inspect/container_check.h"
#include "quant/blocks.h"
#include "qwen35/model.h"
#include "qwen35/run_check.h"
#include "tests/support/bound_views.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::TensorView;
using kel::test::BoundViews;

constexpr size_t kContext = 4;

struct Damage {
  std::string what;
  std::function<void(TensorView&)> apply;
};

// The size that the record's shape and type need, so that the shape alone decides.
void fitBytes(TensorView& tensor) {
  uint64_t rows = 1;
  for (size_t d = 1; d < tensor.rank; ++d) {
    rows *= tensor.dims[d];
  }
  tensor.byteSize = tensor.rank == 0
                        ? kel::quant::quantizedBytes(tensor.type, 1)
                        : rows * kel::quant::quantizedBytes(tensor.type, tensor.dims[0]);
}

Damage dimension(size_t index, const std::string& what, uint64_t (*change)(uint64_t)) {
  return {"dimension " + std::to_string(index) + " " + what, [=](TensorView& tensor) {
            if (index < tensor.rank) {
              tensor.dims[index] = change(tensor.dims[index]);
            }
          }};
}

std::vector<Damage> damages() {
  std::vector<Damage> all = {
      {"none", [](TensorView&) {}},
      {"misaligned",
       [](TensorView& tensor) { tensor.data = static_cast<const uint8_t*>(tensor.data) + 1; }},
      {"no dimension",
       [](TensorView& tensor) {
         tensor.rank = 0;
         tensor.dims[0] = tensor.dims[1] = 0;
       }},
      {"first dimension alone",
       [](TensorView& tensor) {
         tensor.rank = 1;
         tensor.dims[1] = 0;
       }},
      {"another dimension",
       [](TensorView& tensor) {
         tensor.rank = 3;
         tensor.dims[1] = tensor.dims[1] == 0 ? 1 : tensor.dims[1];
         tensor.dims[2] = 2;
       }},
      {"rows over two dimensions",
       [](TensorView& tensor) {
         tensor.rank = 3;
         tensor.dims[2] = tensor.dims[1] == 0 ? 1 : 2;
         tensor.dims[1] = tensor.dims[1] == 0 ? 1 : tensor.dims[1] / 2;
       }},
      {"transposed", [](TensorView& tensor) {
         if (tensor.rank == 2) {
           std::swap(tensor.dims[0], tensor.dims[1]);
         }
       }}};
  for (const size_t index : {0U, 1U}) {
    all.push_back(dimension(index, "less 1", [](uint64_t n) { return n - 1; }));
    all.push_back(dimension(index, "and 1", [](uint64_t n) { return n + 1; }));
    all.push_back(dimension(index, "half", [](uint64_t n) { return n / 2; }));
    all.push_back(dimension(index, "zero", [](uint64_t) { return uint64_t{0}; }));
  }
  for (uint16_t type = 0; type <= static_cast<uint16_t>(QuantType::IQ4_XS); ++type) {
    all.push_back({"type " + std::to_string(type),
                   [type](TensorView& tensor) { tensor.type = static_cast<QuantType>(type); }});
    // Rows of 8 values are no whole blocks.
    all.push_back({"short rows of type " + std::to_string(type), [type](TensorView& tensor) {
                     tensor.type = static_cast<QuantType>(type);
                     tensor.dims[0] = 8;
                   }});
  }
  return all;
}

std::string runtimeFault(BoundViews& file) {
  qwen35::Model model;
  if (!qwen35::initLayers(file.loader, model, kContext) ||
      !qwen35::bindModel(file.loader, model, kContext)) {
    return "a tensor is missing";
  }
  return qwen35::findUnfitTensor(file.loader, model);
}

// The first fault; the records stand in a file without a vocabulary.
std::string checkFault(BoundViews& file) {
  const TensorView* embedding = file.loader.findTensor("token_embd.weight");
  if (embedding != nullptr && embedding->dims[1] < 1000) {
    file.loader.tokenizer.tokens.resize(embedding->dims[1]);
  }
  std::vector<Fault> faults;
  checkModel(file.loader, {}, faults);
  return faults.empty() ? "" : faults[0].where + ": " + faults[0].what;
}

class CheckAgreementTest : public testing::Test {
 protected:
  // Of every tensor whose damage is looked at, one of each kind of layer.
  std::vector<std::string> names() const {
    std::vector<std::string> chosen;
    for (const TensorView& view : file.loader.tensors) {
      if (!view.name.starts_with("blk.") || view.name.starts_with("blk.0.") ||
          view.name.starts_with("blk.3.")) {
        chosen.push_back(view.name);
      }
    }
    return chosen;
  }

  void expectAgreement(const std::string& damage) {
    const std::string runtime = runtimeFault(file);
    const std::string check = checkFault(file);
    EXPECT_EQ(runtime.empty(), check.empty())
        << damage << "\n  runtime: " << runtime << "\n  check: " << check;
  }

  BoundViews file{{.hidden = 256, .ffn = 512, .biases = true}};
};

TEST_F(CheckAgreementTest, EveryDamagedRecordGetsTheRuntimesVerdict) {
  const std::vector<TensorView> whole = file.loader.tensors;
  for (const std::string& name : names()) {
    for (const Damage& damage : damages()) {
      TensorView& tensor = file.view(name);
      damage.apply(tensor);
      fitBytes(tensor);
      expectAgreement(name + ", " + damage.what);
      file.loader.tensors = whole;
    }
    file.remove(name);
    expectAgreement(name + ", removed");
    file.loader.tensors = whole;
  }
}

TEST(CheckAgreementOfNarrowModelsTest, RowsEndWithTheirBlocks) {
  BoundViews file({.hidden = 16, .ffn = 16});
  file.view("blk.0.attn_qkv.weight").type = QuantType::Q8_0;
  EXPECT_EQ(runtimeFault(file), "blk.0.attn_qkv.weight: has rows that end inside a block");
  EXPECT_EQ(checkFault(file), "blk.0.attn_qkv.weight: has rows that end inside a block");
}

TEST_F(CheckAgreementTest, LayersMayHaveWidthsOfTheirOwn) {
  for (const char* name : {"blk.5.ffn_gate.weight", "blk.5.ffn_up.weight"}) {
    file.view(name).dims[1] = 256;
  }
  expectAgreement("a narrow gate");
  file.view("blk.5.ffn_down.weight").dims[0] = 256;
  EXPECT_EQ(runtimeFault(file), "");
  EXPECT_EQ(checkFault(file), "");
}

TEST_F(CheckAgreementTest, LayerOfTheOtherKindIsTakenForWhatItIs) {
  file.copy("blk.0.ssm_out.weight", "blk.3.ssm_out.weight");
  expectAgreement("a layer with the output of linear attention");
  file.remove("blk.0.ssm_out.weight");
  expectAgreement("and one without");
}

TEST_F(CheckAgreementTest, VocabularyHasItsLimits) {
  TensorView& embedding = file.view("token_embd.weight");
  embedding.dims[1] = uint64_t{1} << 31;
  fitBytes(embedding);
  EXPECT_NE(runtimeFault(file), "");
  EXPECT_NE(checkFault(file), "");
}

}  // namespace
}  // namespace zym
