// Conversion of a model into a ZYM2 container: a GGUF file, or a checkpoint directory of the
// training framework with config.json, safetensors and tokenizer.json.
//
//   ConvertOptions options;
//   options.source = "model.gguf";
//   options.target = "model.zym";
//   ProgressSink quiet;
//   const ConvertResult result = convertModel(options, quiet);
//
// What is accepted, refused, and stored how: docs/converting.md.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/status.h"
#include "convert/vocabulary.h"
#include "quant/quant_type.h"

namespace kel::convert {

// Raised with every change after which a source and options that could be converted before give
// other bytes: whoever keeps containers for later knows by it which ones are out of date.
constexpr int kConverterVersion = 1;

// Fixed choices of a type per tensor, by size.
enum class Preset : uint8_t {
  Small,     // Q4_K and Q5_K; ssm_out and embedding Q8_0; ssm_alpha and ssm_beta BF16
  Balanced,  // Q5_K; ssm_out, attn_qkv, attn_gate and embedding Q8_0
  Best,      // Q8_0
  Full,      // BF16
};

// The type of the matrices whose names in the container match a pattern (storage_plan.h).
struct PlanRule {
  std::string pattern;
  std::string typeName;
  QuantType type = QuantType::F32;
};

// How matrices are stored. With neither type nor preset, what the runtime can use is kept as it is
// and the rest is stored in the smallest type that keeps its precision. Types are F32, BF16, Q8_0,
// Q5_K and Q4_K.
struct StorageChoice {
  std::optional<QuantType> type;           // of every matrix; excludes a preset
  std::optional<Preset> preset;            //
  std::optional<QuantType> embeddingType;  // of the embedding, before either
  std::vector<PlanRule> plan;              // before all of these, for what it matches
};

struct ConvertOptions {
  std::string source;
  std::string target;  // ends in ".zym", or the runtime would not open it
  StorageChoice storage;
  std::string name;  // of the model; empty: the source's
  VocabularyForm vocabulary = VocabularyForm::Alphabet;
  bool force = false;           // replace an existing target
  bool dryRun = false;          // everything but the writing; there need be no target
  bool keepPrediction = false;  // the layer of multi-token prediction, where there is one
  unsigned threads = 0;         // 0: all
  // Further texts for the metadata, key and value, behind those that every conversion writes.
  std::vector<std::pair<std::string, std::string>> notes;
};

// Told how far a conversion is, and asked whether to go on; called from the converting thread.
class ProgressSink {
 public:
  ProgressSink() = default;
  virtual ~ProgressSink() = default;
  ProgressSink(const ProgressSink&) = delete;
  ProgressSink& operator=(const ProgressSink&) = delete;

  // Bytes of the source's tensors.
  virtual void onProgress(uint64_t /*doneBytes*/, uint64_t /*totalBytes*/) {}
  // Asked every few megabytes; true ends the conversion, with nothing left behind.
  virtual bool cancelled() { return false; }
};

// Tensors of one kind that were treated alike.
struct TensorGroup {
  std::string name;        // the tensors' name without the layer: "ffn_down.weight"
  std::string sourceType;  // "Q6_K"
  QuantType storedType = QuantType::F32;
  std::string reason;  // why it is stored so; empty when it is kept as it is
  uint64_t count = 0;
  uint64_t sourceBytes = 0;
  uint64_t storedBytes = 0;
};

struct ConvertSummary {
  std::string modelName;
  std::string sourceFormat;                 // "GGUF 3", "safetensors"
  std::vector<TensorGroup> groups;          // in the order of the container's tensor list
  std::map<std::string, uint64_t> skipped;  // "vision" -> tensors that were left out
  std::vector<std::string> remarks;         // whole sentences without a full stop
  uint64_t sourceBytes = 0;                 // of the tensors in groups
  uint64_t storedBytes = 0;
  uint64_t fileBytes = 0;  // of the container, at most
};

struct ConvertResult {
  // Unsupported: not a model for this runtime. InvalidFormat: damaged, or an option that cannot be.
  // IoError: the system refused. The message is one sentence without a full stop.
  Status status;
  bool cancelled = false;  // status is then not ok
  ConvertSummary summary;  // complete when status is ok
};

// Converts. Until it succeeds the target is as it was, and so it is when it appeared meanwhile and
// force does not replace it. As long as the process lives, no other file stays behind. The target's
// bytes depend on source and options alone, not on the number of threads. Memory: the vocabulary
// and some ten megabytes a thread; pages of the mapped source are given back as they are used up.
// Throws nothing. The source must not change meanwhile.
ConvertResult convertModel(const ConvertOptions& options, ProgressSink& progress);

// "f32", "bf16", "q8_0", "q5_k", "q4_k", in small letters or capitals; none for any other text.
std::optional<QuantType> storageTypeByName(std::string_view name);

// "small", "balanced", "best", "full", in small letters or capitals; none for any other text.
std::optional<Preset> presetByName(std::string_view name);

std::string_view presetName(Preset preset);

}  // namespace kel::convert
