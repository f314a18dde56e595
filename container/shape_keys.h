// The keys under which a container states the shape of its model, in the order in which they are
// written, and the numbers behind them. For container/shape_metadata.h alone.
#pragma once

#include <cstdint>

namespace kel::shape_keys {

// Everything that a key says, as it is stored.
struct Numbers {
  uint32_t blocks = 0;
  uint32_t predictionLayers = 0;
  uint32_t context = 0;
  uint32_t hidden = 0;
  uint32_t feedForward = 0;
  uint32_t queryHeads = 0;
  uint32_t kvHeads = 0;
  uint32_t keyLength = 0;
  uint32_t valueLength = 0;
  uint32_t ropeDim = 0;
  uint32_t convTaps = 0;
  uint32_t stateSize = 0;
  uint32_t groups = 0;
  uint32_t timeSteps = 0;
  uint32_t innerSize = 0;
  uint32_t interval = 0;
  float normEps = 0;
  float ropeBase = 0;
};

inline constexpr const char* kBlocks = "qwen35.block_count";
inline constexpr const char* kPredictionLayers = "qwen35.nextn_predict_layers";
inline constexpr const char* kInterval = "qwen35.full_attention_interval";
inline constexpr const char* kRecurrentLayers = "qwen35.attention.recurrent_layers";
inline constexpr const char* kHidden = "qwen35.embedding_length";
inline constexpr const char* kFeedForward = "qwen35.feed_forward_length";

template <typename Number>
struct Key {
  const char* name;
  Number Numbers::*field;
};

inline constexpr Key<uint32_t> kRequired[] = {
    {kBlocks, &Numbers::blocks},
    {"qwen35.context_length", &Numbers::context},
    {kHidden, &Numbers::hidden},
    {kFeedForward, &Numbers::feedForward},
    {"qwen35.attention.head_count", &Numbers::queryHeads},
    {"qwen35.attention.head_count_kv", &Numbers::kvHeads},
    {"qwen35.attention.key_length", &Numbers::keyLength},
    {"qwen35.attention.value_length", &Numbers::valueLength},
    {"qwen35.rope.dimension_count", &Numbers::ropeDim},
    {"qwen35.ssm.conv_kernel", &Numbers::convTaps},
    {"qwen35.ssm.state_size", &Numbers::stateSize},
    {"qwen35.ssm.group_count", &Numbers::groups},
    {"qwen35.ssm.time_step_rank", &Numbers::timeSteps},
    {"qwen35.ssm.inner_size", &Numbers::innerSize},
};

inline constexpr Key<uint32_t> kOptional[] = {
    {kPredictionLayers, &Numbers::predictionLayers},
    {kInterval, &Numbers::interval},
};

inline constexpr Key<float> kFractions[] = {
    {"qwen35.attention.layer_norm_rms_epsilon", &Numbers::normEps},
    {"qwen35.rope.freq_base", &Numbers::ropeBase},
};

}  // namespace kel::shape_keys
