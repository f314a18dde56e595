#include "session/session.h"

namespace session {

void Qwen35Session::clearContext() {
  qwen35::resetModel(model);
  position = 0;
  sampledTokens = 0;
  decodeMsTotal = 0;
}

void Qwen35Session::endChat() {
  clearContext();
  chatActive = false;
}

}  // namespace session
