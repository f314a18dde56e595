#include "session/session.h"

namespace session {

void Qwen35Session::restart() {
  qwen35::resetModel(model);
  position = 0;
  sampledTokens = 0;
  decodeMsTotal = 0;
}

void Qwen35Session::startOver() {
  restart();
  chatActive = false;
}

}  // namespace session
