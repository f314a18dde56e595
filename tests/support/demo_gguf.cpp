#include "tests/support/demo_gguf.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "container/zym_loader.h"
#include "tests/convert/gguf_builder.h"
#include "tests/support/demo_model.h"
#include "tests/support/file_contents.h"
#include "tests/support/json_text.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

namespace {

constexpr uint32_t kGgufF32 = 0;
constexpr uint32_t kGgufBf16 = 30;

uint32_t rowsOf(const ZYMLoader& demo, const char* matrix) {
  return static_cast<uint32_t>(demo.findTensor(matrix)->dims[1]);
}

void addShape(const ZYMLoader& demo, GgufBuilder& file) {
  file.text("general.architecture", "qwen35");
  file.text("general.name", "Demo");
  file.u32("qwen35.block_count", 32);
  file.u32("qwen35.context_length", 8192);
  file.u32("qwen35.embedding_length",
           static_cast<uint32_t>(demo.findTensor("token_embd.weight")->dims[0]));
  file.u32("qwen35.feed_forward_length", rowsOf(demo, "blk.0.ffn_up.weight"));
  file.u32("qwen35.attention.head_count", 16);
  file.u32("qwen35.attention.head_count_kv", 4);
  file.u32("qwen35.attention.key_length", 256);
  file.u32("qwen35.attention.value_length", 256);
  file.f32("qwen35.attention.layer_norm_rms_epsilon", 1e-6F);
  file.u32("qwen35.full_attention_interval", 4);
  file.f32("qwen35.rope.freq_base", 1e7F);
  file.u32("qwen35.rope.dimension_count", 64);
  file.array<int32_t>("qwen35.rope.dimension_sections", 5, {11, 11, 10, 0});
  file.u32("qwen35.ssm.conv_kernel", 4);
  file.u32("qwen35.ssm.state_size", 128);
  file.u32("qwen35.ssm.group_count", 16);
  file.u32("qwen35.ssm.time_step_rank", 32);
  file.u32("qwen35.ssm.inner_size", 4096);
}

void addTokenizer(const TokenizerData& tables, GgufBuilder& file) {
  std::vector<std::string> tokens = tables.tokens;
  for (std::string& token : tokens) {
    token = token == "\n" ? "\u010A" : token;  // the container alone holds it as it is
  }
  file.text("tokenizer.ggml.model", "gpt2");
  file.text("tokenizer.ggml.pre", "qwen35");
  file.texts("tokenizer.ggml.tokens", tokens);
  file.array("tokenizer.ggml.token_type", 5, tables.tokenTypes);
  file.texts("tokenizer.ggml.merges", tables.merges);
  file.u32("tokenizer.ggml.eos_token_id", static_cast<uint32_t>(tables.eosId));
  const std::string config = contentsOf(ZYM_DEMO_FOLDER "/tokenizer_config.json");
  file.text("tokenizer.chat_template", parseJson(config).at("chat_template"));
}

}  // namespace

void writeDemoGguf(const std::string& path) {
  const TempDir folder;
  const std::string container = folder.file("demo.zym");
  writeDemoModel(container, QuantType::BF16);
  ZYMLoader demo;
  const Status status = demo.open(container.c_str());
  if (!status.ok()) {
    throw std::runtime_error(status.message);
  }
  GgufBuilder file;
  addShape(demo, file);
  addTokenizer(demo.tokenizer, file);
  for (const TensorView& view : demo.tensors) {
    const auto* data = static_cast<const uint8_t*>(view.data);
    file.tensors.push_back({.name = std::string(view.name),
                            .ne = std::vector<uint64_t>(view.dims, view.dims + view.rank),
                            .type = view.type == QuantType::F32 ? kGgufF32 : kGgufBf16,
                            .data = Bytes(data, data + view.byteSize)});
  }
  file.write(path);
}

}  // namespace kel::test
