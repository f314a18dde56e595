// What a host does with a handle, for tests: create, turns, destroy, through the tables alone.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/abi/plugin_library.h"

namespace testing_abi {

struct DestroyHandle {
  void operator()(ZYMRuntimeHandle* handle) const { plugin().runtimes(nullptr)->destroy(handle); }
};
using Handle = std::unique_ptr<ZYMRuntimeHandle, DestroyHandle>;

// Null, with a test failure, when the model does not open.
inline Handle createHandle(const std::string& model) {
  ZYMRuntimeHandle* handle = nullptr;
  char message[256] = "";
  EXPECT_EQ(0u, plugin().runtimesV2(nullptr)->create(model.c_str(), nullptr, &handle, message,
                                                     sizeof message))
      << message;
  return Handle(handle);
}

struct Reply {
  uint32_t status = 99;
  std::string text;
  std::vector<std::string> pieces{};  // of a streamed turn

  bool operator==(const Reply& other) const { return status == other.status && text == other.text; }
};

constexpr size_t kReplyCapacity = 1 << 16;

inline Reply chatTurn(const Handle& handle, const char* text) {
  std::string out(kReplyCapacity, '\xAA');
  const uint32_t status =
      plugin().runtimesV2(nullptr)->chatTurn(handle.get(), text, out.data(), out.size());
  return {status, out.c_str()};
}

inline Reply generate(const Handle& handle, const char* prompt) {
  std::string out(kReplyCapacity, '\xAA');
  const uint32_t status =
      plugin().runtimesV2(nullptr)->generate(handle.get(), prompt, out.data(), out.size());
  return {status, out.c_str()};
}

inline Reply generateEx(const Handle& handle, const char* prompt,
                        const ZYMSessionOptions* options) {
  std::string out(kReplyCapacity, '\xAA');
  const uint32_t status = plugin().runtimesV2(nullptr)->generateEx(handle.get(), prompt, options,
                                                                   out.data(), out.size());
  return {status, out.c_str()};
}

inline void collectPiece(const char* piece, uint32_t length, void* userData) {
  EXPECT_EQ('\0', piece[length]);
  static_cast<Reply*>(userData)->pieces.emplace_back(piece, length);
}

inline Reply streamTurn(const Handle& handle, const char* text, volatile int* cancel = nullptr) {
  Reply reply;
  reply.status = plugin().runtimesV2S(nullptr)->chatTurnStream(handle.get(), text, collectPiece,
                                                               &reply, cancel);
  for (const std::string& piece : reply.pieces) {
    reply.text += piece;
  }
  return reply;
}

// A turn that is cancelled at its nPieces-th piece, for time; with 0 it is cancelled beforehand and
// feeds its prompt alone.
inline Reply firstPieces(const Handle& handle, const std::string& text, size_t nPieces) {
  struct Turn {
    Reply reply{};
    size_t nPieces;
    volatile int cancel;
  } turn{.nPieces = nPieces, .cancel = nPieces == 0 ? 1 : 0};
  const ZYMStreamCallback callback = [](const char* piece, uint32_t length, void* userData) {
    Turn& own = *static_cast<Turn*>(userData);
    own.reply.pieces.emplace_back(piece, length);
    own.reply.text.append(piece, length);
    own.cancel = own.reply.pieces.size() == own.nPieces ? 1 : 0;
  };
  turn.reply.status = plugin().runtimesV2S(nullptr)->chatTurnStream(handle.get(), text.c_str(),
                                                                    callback, &turn, &turn.cancel);
  return turn.reply;
}

inline ZYMRuntimeStats statsOf(const Handle& handle) {
  ZYMRuntimeStats stats{};
  EXPECT_EQ(0u, plugin().runtimesV2(nullptr)->stats(handle.get(), &stats));
  return stats;
}

inline uint32_t resetOf(const Handle& handle) {
  return plugin().runtimesV2(nullptr)->reset(handle.get());
}

inline ZYMSessionOptions sampling(float temperature, int32_t topK, float topP, uint64_t seed) {
  return {.structSize = sizeof(ZYMSessionOptions),
          .temperature = temperature,
          .topK = topK,
          .topP = topP,
          .seed = seed,
          .reserved = {}};
}

}  // namespace testing_abi
