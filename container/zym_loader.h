// The one object through which a model file is opened: the container reader, a record per tensor,
// the tokenizer tables and the text section.
//
// One thread opens and closes; while a loader is open its lookups may run on any number of threads.
// Tensor records point into the file mapping: the loader outlives every pointer it hands out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "container/status.h"
#include "container/tensor_view.h"
#include "container/tokenizer_data.h"
#include "container/zym2_reader.h"

namespace kel {

class ZYMLoader {
 public:
  ZYMLoader() = default;
  ~ZYMLoader();
  ZYMLoader(const ZYMLoader&) = delete;
  ZYMLoader& operator=(const ZYMLoader&) = delete;

  // Closes what is open, then opens the file. A status of the reader passes through unchanged.
  // "ZYMLoader: no tokenizer section" leaves the file mapped, but every lookup answers null until
  // close, the next open, or destruction.
  Status open(const char* path);
  void close();
  bool isOpen() const { return opened; }

  // The record whose name equals name byte for byte, the first of equals; null when there is none
  // or the loader is not open. Binary search, no allocation.
  const TensorView* findTensor(const std::string& name) const;

  ZYM2Reader reader;
  uint32_t wordA = 0;  // header words, free for writers
  uint64_t wordB = 0;
  uint64_t wordC = 0;
  uint64_t tensorCount = 0;
  std::vector<TensorView> tensors;  // in index order, so sorted by name
  TokenizerData tokenizer;          // may be moved away by the session
  std::string tokenizerLabel;
  std::string text;

 private:
  bool opened = false;
};

}  // namespace kel
