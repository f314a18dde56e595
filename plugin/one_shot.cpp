#include <string>
#include <vector>

#include "plugin/boundary.h"
#include "plugin/operations.h"
#include "session/decode_loop.h"
#include "session/text_buffer.h"

namespace plugin {

using session::Qwen35Session;

namespace {

uint32_t complete(Qwen35Session& session, const char* prompt, char* out, size_t outCap) {
  std::vector<int> ids;
  if (!session.tokenizer->encode(prompt == nullptr ? "" : prompt, ids, true).ok()) {
    return ZYM_STATUS_FAILED;
  }
  session.endChat();
  if (!session.canRun()) {
    return ZYM_STATUS_FAILED;
  }
  std::vector<float> hidden(session.model.nEmbd);
  std::vector<float> logits(session.model.nVocab);
  if (!prefill(&session, ids, hidden, logits)) {
    return ZYM_STATUS_FAILED;
  }

  bool ok = false;
  const std::string text = generate(&session, hidden, logits, session.tokenizer->eosId, ok);
  if (!ok) {
    return ZYM_STATUS_FAILED;
  }
  session::copyText(out, outCap, text);
  return ZYM_STATUS_OK;
}

}  // namespace

uint32_t qwen35Generate(ZYMRuntimeHandle* handle, const char* prompt, char* out, size_t outCap) {
  return qwen35GenerateN(handle, prompt, out, outCap);
}

uint32_t qwen35GenerateN(ZYMRuntimeHandle* handle, const char* prompt, char* out, size_t outCap) {
  if (!isLoaded(handle) || !isUsable(out, outCap)) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  out[0] = '\0';
  return guarded([&] { return complete(*sessionOf(handle), prompt, out, outCap); });
}

uint32_t qwen35V2GenerateEx(ZYMRuntimeHandle* handle, const char* prompt,
                            const ZYMSessionOptions* options, char* out, size_t outCap) {
  if (!isLoaded(handle) || !isUsable(out, outCap)) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  Qwen35Session& session = *sessionOf(handle);
  const float temperature = session.temperature;
  const int32_t topK = session.topK;
  const float topP = session.topP;
  // Deliberate: a record that is too short is ignored here, where configure refuses it.
  if (options != nullptr && options->structSize >= ZYM_SESSION_OPTIONS_SIZE) {
    applyOptions(session, *options);
  }
  const uint32_t status = qwen35GenerateN(handle, prompt, out, outCap);
  // The generator is deliberately not put back: later calls continue the seeded sequence.
  session.temperature = temperature;
  session.topK = topK;
  session.topP = topP;
  return status;
}

}  // namespace plugin
