// Weights at odd addresses: vectors are copied, matrices are read where they lie, and neither
// changes a bit of any result.
#include "qwen35/aligned_vectors.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <vector>

#include "container/model_tensors.h"
#include "qwen35/layer_tensors.h"
#include "tests/support/bound_views.h"
#include "tests/support/float_bits.h"
#include "tests/support/odd_weights.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::TensorKind;
using kel::test::bitsOf;
using kel::test::Handle;
using kel::test::ModelFile;

bool isOdd(const void* data) {
  return reinterpret_cast<uintptr_t>(data) % 2 == 1;
}

// One model with its tensors where the writer puts them, and the same at odd addresses. Its
// matrices are F32 and BF16 in turn.
class OddAddresses : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    file = new ModelFile(
        {.types = {QuantType::F32, QuantType::BF16}, .biases = true, .layerKinds = "LFFFFFFF"});
    shifted = new std::string(file->folder.file("shifted.zym"));
    std::filesystem::copy_file(file->path, *shifted);
    kel::test::shiftWeights(*shifted);
  }
  static void TearDownTestSuite() {
    delete shifted;
    delete file;
  }

  static inline ModelFile* file = nullptr;
  static inline std::string* shifted = nullptr;
};

TEST_F(OddAddresses, LeaveEveryBitOfTheResults) {
  Handle plain(file->path);
  Handle odd(*shifted);
  ASSERT_TRUE(isOdd(odd.model.tokEmbd->data));
  const std::vector<size_t> prompt = {10, 11, 12, 13, 14};
  EXPECT_EQ(bitsOf(plain.pass(prompt, qwen35::Arithmetic::Batch)),
            bitsOf(odd.pass(prompt, qwen35::Arithmetic::Batch)));
  for (const size_t token : {3U, 4U}) {
    EXPECT_EQ(bitsOf(plain.logits(token)), bitsOf(odd.logits(token))) << token;
  }
}

TEST_F(OddAddresses, OfVectorsAreGivenUpAndOfMatricesKept) {
  Handle handle(*shifted);
  EXPECT_FALSE(isOdd(handle.model.outputNorm->data));
  std::set<QuantType> oddTypes;
  for (qwen35::Layer& layer : handle.model.layers) {
    for (const auto group :
         {kel::TensorGroup::Common, kel::TensorGroup::Linear, kel::TensorGroup::Full}) {
      for (const kel::ModelTensor& tensor : kel::tensorsOf(group)) {
        const kel::TensorView* view = qwen35::layerTensor(layer, tensor.role);
        if (view == nullptr) {
          continue;
        }
        EXPECT_EQ(tensor.kind == TensorKind::Matrix, isOdd(view->data)) << view->name;
        if (isOdd(view->data)) {
          oddTypes.insert(view->type);
        }
      }
    }
  }
  EXPECT_EQ((std::set{QuantType::F32, QuantType::BF16}), oddTypes);
}

TEST_F(OddAddresses, AreTheOnlyReasonForACopy) {
  const Handle handle(file->path);
  EXPECT_TRUE(handle.model.alignedVectors.empty());
  EXPECT_EQ(handle.loader.findTensor("blk.0.ssm_a"), handle.model.layers[0].ssmA);
}

// The model holds what is read of a tensor, not all that a file may put there.
TEST(AlignedVectors, LeaveBehindWhatNobodyReads) {
  kel::test::BoundViews file;
  qwen35::Model m;
  std::vector<float> stored(8192 * 5 + 1);
  for (size_t i = 0; i < stored.size(); ++i) {
    stored[i] = static_cast<float>(i);
  }
  std::vector<uint8_t> bytes(stored.size() * sizeof(float) + 1);
  std::memcpy(bytes.data() + 1, stored.data(), stored.size() * sizeof(float));
  kel::TensorView& taps = file.view("blk.0.ssm_conv1d.weight");
  taps.data = bytes.data() + 1;
  taps.dims[0] = 5;
  kel::TensorView& decay = file.view("blk.0.ssm_a");
  decay.data = bytes.data() + 1;
  decay.dims[0] = uint64_t{1} << 40;
  ASSERT_TRUE(qwen35::initLayers(file.loader, m, 4) && qwen35::bindModel(file.loader, m, 4));

  qwen35::alignVectors(m);

  const kel::TensorView& copy = *m.layers[0].ssmConv1d;
  EXPECT_EQ(4u, copy.dims[0]);
  EXPECT_EQ(8192u, copy.dims[1]);
  EXPECT_EQ(3.0f, qwen35::floats(&copy)[3]);
  EXPECT_EQ(5.0f, qwen35::floats(&copy)[4]);
  EXPECT_EQ(8191.0f * 5 + 3, qwen35::floats(&copy)[8191 * 4 + 3]);
  EXPECT_EQ(31.0f, qwen35::floats(m.layers[0].ssmA)[31]);
}

// They are never read, so nothing has been said of where they lie.
TEST(AlignedVectors, LeaveKeyAndValueBiasesAloneWithoutAQueryBias) {
  for (const char* bias : {"blk.3.attn_k.bias", "blk.3.attn_v.bias"}) {
    kel::test::BoundViews file({.biases = true});
    qwen35::Model m;
    const void* nowhere = reinterpret_cast<const void*>(1);
    file.view(bias).data = nowhere;
    file.remove("blk.3.attn_q.bias");
    ASSERT_TRUE(qwen35::initLayers(file.loader, m, 4) && qwen35::bindModel(file.loader, m, 4));

    qwen35::alignVectors(m);

    EXPECT_TRUE(m.alignedVectors.empty());
    EXPECT_EQ(&file.view("blk.3.attn_k.bias"), m.layers[3].attnKBias);
    EXPECT_EQ(&file.view("blk.3.attn_v.bias"), m.layers[3].attnVBias);
  }
}

}  // namespace
