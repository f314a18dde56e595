#include <new>
#include <utility>

#include "qwen35/aligned_vectors.h"
#include "qwen35/processors.h"
#include "qwen35/run_check.h"
#include "session/architecture.h"
#include "session/session.h"
#include "session/text_buffer.h"

namespace session {

namespace {

// Room for batches or, where a file claims a width that the system has no room for, for one token.
std::unique_ptr<qwen35::Context> makeContext(const qwen35::Model& model) {
  const size_t threads = qwen35::defaultThreads();
  try {
    return std::make_unique<qwen35::Context>(
        model, qwen35::ContextOptions{.maxTokens = qwen35::kBatchTokens, .threads = threads});
  } catch (const std::bad_alloc&) {
    return std::make_unique<qwen35::Context>(model, qwen35::ContextOptions{.threads = threads});
  }
}

// The message of the first step that fails; null when every step succeeded.
const char* openSteps(Qwen35Session& session, const char* path) {
  session.loader = std::make_unique<kel::ZYMLoader>();
  kel::ZYMLoader& loader = *session.loader;
  if (!loader.open(path).ok()) {
    return "zym open failed";
  }

  std::string architecture;
  loader.reader.getMetaStr(kArchitectureKey, architecture);
  if (architecture == kArchQwen35Moe) {
    return "qwen35moe not supported yet";
  }
  if (architecture != kArchQwen35) {
    return "not a qwen35-architecture model";
  }

  // Moved, not copied: a real vocabulary is half a million strings, and nobody reads the loader's
  // tables afterwards.
  session.tokenizer = std::make_unique<kel::Tokenizer>();
  if (!session.tokenizer->load(std::move(loader.tokenizer)).ok()) {
    return "tokenizer load failed";
  }

  const size_t capacity = session.model.shape.contextLength;
  if (!qwen35::initLayers(loader, session.model, capacity)) {
    return "qwen35 layer bind failed";
  }
  if (!qwen35::bindModel(loader, session.model, capacity)) {
    return "qwen35 model bind failed";
  }
  session.unfitReason = qwen35::findUnfitTensor(loader, session.model);
  if (session.unfitReason.empty()) {
    qwen35::alignVectors(session.model);
    session.beforeBatch = std::make_unique<qwen35::Snapshot>(session.model);
    session.context = makeContext(session.model);
  }
  return nullptr;
}

}  // namespace

bool openSession(Qwen35Session* session, const char* path, char* err, size_t errCap) {
  const char* const failure = openSteps(*session, path);
  session->loaded = failure == nullptr;
  if (failure != nullptr) {
    copyText(err, errCap, failure);
  }
  return session->loaded;
}

}  // namespace session
