#include "session/session.h"

namespace session {

Qwen35Session::Qwen35Session() {
  // The supported shape is fixed; only hidden size and vocabulary come from the file.
  model.nHead = 16;
  model.nHeadKv = 4;
  model.headDim = 256;
  model.ropeDim = 64;
  model.ssmDState = 128;
  model.ssmGroups = 16;
  model.ssmHeads = 32;
  model.ssmInner = 4096;
  model.convKernel = 4;
}

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
