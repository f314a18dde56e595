// A model as an importer hands it over: what it is made of, under the container's names, with the
// conventions of its source still in place.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "container/model_shape.h"
#include "container/status.h"
#include "convert/mapped_file.h"
#include "convert/source_type.h"
#include "convert/vocabulary.h"

namespace kel::convert {

// What a tensor of multi-token prediction is counted as.
constexpr const char* kPredictionKind = "multi-token prediction";

struct SourceTensor {
  std::string name;                // in the source, printable, for messages
  std::string typeName;            // likewise
  std::optional<SourceType> type;  // none: cannot be decoded
  std::vector<uint64_t> dims;      // innermost first
  const uint8_t* data = nullptr;   // into a mapping of the model's files
  uint64_t nBytes = 0;             // what type and dims imply
};

// A size as the source's description states it, to be held against the tensors.
struct StatedSize {
  std::string field;
  std::optional<uint64_t> value;
};

struct SourceModel {
  ModelShape shape = kFixedShape;  // as described; whether the output head is its own is yet open
  uint32_t predictionLayers = 0;   // behind those of the shape, of those that are kept

  std::map<std::string, SourceTensor> tensors;            // by container name
  std::map<std::string, SourceTensor> predictionTensors;  // likewise, until they are decided on
  std::optional<SourceTensor> outputHead;  // beside the embedding, until it is decided on
  bool statesOwnOutput = false;            // says that the head is not the embedding
  std::string tiedField;                   // where it says so

  StatedSize hidden;
  StatedSize feedForward;
  StatedSize vocab;

  // Conventions. GGUF files hold norms and decays as the runtime uses them.
  bool normsLessOne = false;
  bool decaysAsLogs = false;
  bool groupedHeads = false;

  Vocabulary vocabulary;
  // What is done to text before it is cut: "nfc" or nothing, where the source states it.
  std::optional<std::string> normalizer;
  int64_t paddingId = -1;
  std::string chatTemplate;
  // Recommended settings under the names of metadata: "temp", "top_k", "top_p", "min_p" and others.
  std::vector<std::pair<std::string, double>> sampling;
  std::string license;
  std::string name;
  std::string format;                       // "GGUF 3", "safetensors"
  std::vector<std::string> fileNames;       // without their folder
  std::map<std::string, uint64_t> skipped;  // kind of tensor that text needs not -> how many
  std::vector<std::string> remarks;         // what is odd about the source, yet does no harm

  std::vector<MappedFile> files;  // own what the tensors point to
};

// Refuses a source that holds one part alone of what a model can have, such as its vision part.
// what: the source, as a message begins with it.
Status checkIsWhole(const SourceModel& model, const char* what);

// Reads a GGUF file or a checkpoint directory, whichever path is. Ok means that the structure is
// sound and that the metadata describe a model of this family; tensors have yet to be checked
// (planTensors). A container is refused as one. Messages are whole sentences without a full stop.
Status readSourceModel(const std::string& path, SourceModel& out);

}  // namespace kel::convert
