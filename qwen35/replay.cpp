#include "qwen35/replay.h"

#include "qwen35/context.h"
#include "qwen35/linear_attention.h"
#include "qwen35/snapshot.h"

namespace qwen35 {

Replay::Replay(const Model& m, size_t maxTokens) : layers(m.layers.size()) {
  for (size_t l = 0; l < layers.size(); ++l) {
    if (m.layers[l].isLinear) {
      layers[l].qkv = StateBuffer(maxTokens * m.convChannels());
      layers[l].beta = StateBuffer(maxTokens * m.ssmHeads);
      layers[l].alpha = StateBuffer(maxTokens * m.ssmHeads);
    }
  }
}

void keepTokens(Context& context, Model& m, const Snapshot& before, Replay& replay, size_t count) {
  before.restore(m);
  context.diagnostics = {};
  const Sequence sequence[] = {{.model = &m, .count = count, .replay = &replay}};
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, count, Arithmetic::SingleToken, sequence};
    for (size_t l = 0; l < m.nLayer; ++l) {
      if (m.layers[l].isLinear) {
        advanceState(w, m.layers[l], l);
      }
    }
  });
  for (Layer& layer : m.layers) {
    if (!layer.isLinear) {
      layer.pos += count;
    }
  }
}

}  // namespace qwen35
