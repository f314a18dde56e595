#include <string>
#include <vector>

#include "plugin/boundary.h"
#include "plugin/operations.h"
#include "session/decode_loop.h"
#include "session/text_buffer.h"

namespace plugin {

using session::Qwen35Session;

namespace {

constexpr const char* kTurnEnd = "<|im_end|>";

// The reply of the previous turn is deliberately not closed with an end marker: a stop token is
// never fed, and the next turn's text follows the reply directly.
std::string turnText(const char* userText) {
  std::string text = "<|im_start|>user\n";
  if (userText != nullptr) {
    text += userText;
  }
  text += "<|im_end|>\n<|im_start|>assistant\n";
  return text;
}

// A turn whose text has been fed and whose reply can be sampled.
struct OpenTurn {
  std::vector<float> hidden;
  std::vector<float> logits;
  int stopToken = -1;
};

// Feeds the user's text, behind the conversation so far or from an empty context. False leaves in
// the caches whatever was fed.
bool openTurn(Qwen35Session& session, const char* userText, OpenTurn& turn) {
  if (!session.chatActive) {
    session.clearContext();
  }
  std::vector<int> ids;
  if (!session.tokenizer->encode(turnText(userText), ids, true).ok()) {
    return false;
  }
  if (!session.canRun()) {
    return false;
  }
  turn.hidden.resize(session.model.nEmbd);
  turn.logits.resize(session.model.nVocab);
  if (!prefill(&session, ids, turn.hidden, turn.logits)) {
    return false;
  }
  session.chatActive = true;
  turn.stopToken = session.tokenizer->tokenToId(kTurnEnd);
  return true;
}

uint32_t bufferedTurn(Qwen35Session& session, const char* userText, char* out, size_t outCap) {
  OpenTurn turn;
  if (!openTurn(session, userText, turn)) {
    return ZYM_STATUS_FAILED;
  }
  bool ok = false;
  const std::string reply = generate(&session, turn.hidden, turn.logits, turn.stopToken, ok);
  if (!ok) {
    return ZYM_STATUS_FAILED;
  }
  session::copyText(out, outCap, reply);
  return ZYM_STATUS_OK;
}

// The same loop as the buffered turn. It differs in what happens to a piece: here it goes to the
// host at once and the cancel flag is read behind it, so that no limit on a collected text applies
// and pieces delivered before a numeric failure stand.
uint32_t qwen35StreamChatTurnImpl(Qwen35Session& session, const char* userText,
                                  ZYMStreamCallback callback, void* userData,
                                  const volatile int* cancel) {
  // Atomic, as another thread may store at this moment. Nothing is published with the flag.
  const auto cancelled = [cancel] {
    return cancel != nullptr && __atomic_load_n(cancel, __ATOMIC_RELAXED) != 0;
  };
  OpenTurn turn;
  if (!openTurn(session, userText, turn)) {
    return ZYM_STATUS_FAILED;
  }
  if (cancelled()) {
    return ZYM_STATUS_OK;
  }
  const bool ok =
      decodeLoop(&session, turn.hidden, turn.logits, turn.stopToken, [&](const std::string& piece) {
        if (callback != nullptr) {
          callback(piece.c_str(), static_cast<uint32_t>(piece.size()), userData);
        }
        return !cancelled();
      });
  return ok ? ZYM_STATUS_OK : ZYM_STATUS_FAILED;
}

}  // namespace

uint32_t qwen35V2ChatTurn(ZYMRuntimeHandle* handle, const char* userText, char* out,
                          size_t outCap) {
  if (!isLoaded(handle) || !isUsable(out, outCap)) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  out[0] = '\0';
  return guarded([&] { return bufferedTurn(*sessionOf(handle), userText, out, outCap); });
}

uint32_t qwen35V2ChatTurnStream(ZYMRuntimeHandle* handle, const char* userText,
                                ZYMStreamCallback callback, void* userData, volatile int* cancel) {
  if (!isLoaded(handle)) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  return guarded([&] {
    return qwen35StreamChatTurnImpl(*sessionOf(handle), userText, callback, userData, cancel);
  });
}

}  // namespace plugin
