// The exported entry points and the constant tables that they return.
#include "container/model_shape.h"
#include "plugin/operations.h"
#include "session/decode_loop.h"
#include "zym/plugin.h"

namespace {

// The limits that hosts are told are those that sessions keep.
static_assert(session::kMaxNewTokens == ZYM_MAX_TURN_TOKENS);
static_assert(kel::kFixedShape.contextLength == ZYM_CONTEXT_CAPACITY);

constexpr const char* kRuntimeName = "qwen35-cpu";

constexpr ZYMPluginDescriptor kDescriptor = {
    .header0 = 1,
    .header1 = 1,
    .name = "runtime-qwen35",
    .description = "Real Qwen3.5 hybrid (GDN+full attn) CPU runtime",
    .reserved = {},
};

constexpr ZYMRuntimeTable kRuntime = {
    .header0 = 1,
    .header1 = 0,
    .name = kRuntimeName,
    .description = "Qwen3.5 hybrid CPU runtime (real)",
    .flags = 0xE1,
    .probe = plugin::qwen35Probe,
    .create = plugin::qwen35Create,
    .destroy = plugin::qwen35Destroy,
    .generate = plugin::qwen35Generate,
};

constexpr ZYMRuntimeTableV2 kRuntimeV2 = {
    .header0 = 3,
    .header1 = 0x70,
    .name = kRuntimeName,
    .description = "Qwen3.5 hybrid CPU runtime (real, v2 chat)",
    .flags = 0xF,
    .probe = plugin::qwen35Probe,
    .create = plugin::qwen35Create,
    .destroy = plugin::qwen35Destroy,
    .generate = plugin::qwen35Generate,
    .generateEx = plugin::qwen35V2GenerateEx,
    .bench = plugin::qwen35V2Bench,
    .configure = plugin::qwen35V2Configure,
    .chatTurn = plugin::qwen35V2ChatTurn,
    .reset = plugin::qwen35V2Reset,
    .stats = plugin::qwen35V2Stats,
};

constexpr ZYMRuntimeTableV2S kRuntimeV2S = {
    .header0 = 1,
    .header1 = 0x18,
    .name = kRuntimeName,
    .chatTurnStream = plugin::qwen35V2ChatTurnStream,
    .reserved = {},
};

template <typename Table>
const Table* oneTable(const Table& table, uint32_t* count) {
  if (count != nullptr) {
    *count = 1;
  }
  return &table;
}

}  // namespace

const ZYMPluginDescriptor* zym_plugin_init(void) {
  return &kDescriptor;
}

const ZYMRuntimeTable* zym_plugin_runtimes(uint32_t* count) {
  return oneTable(kRuntime, count);
}

const ZYMRuntimeTableV2* zym_plugin_runtimes_v2(uint32_t* count) {
  return oneTable(kRuntimeV2, count);
}

const ZYMRuntimeTableV2S* zym_plugin_runtimes_v2s(uint32_t* count) {
  return oneTable(kRuntimeV2S, count);
}
