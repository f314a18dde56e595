#include "convert/convert.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <new>
#include <thread>
#include <utility>

#include "container/fixed_shape.h"
#include "container/zym2_writer.h"
#include "convert/container_metadata.h"
#include "convert/errors.h"
#include "convert/free_space.h"
#include "convert/norm_check.h"
#include "convert/output_head.h"
#include "convert/prediction_layer.h"
#include "convert/source_model.h"
#include "convert/tensor_plan.h"
#include "convert/tensor_stream.h"

namespace kel::convert {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTargetEnding = ".zym";
// Head, metadata, and the padding between sections.
constexpr uint64_t kFixedBytes = 65536;
constexpr unsigned kMostThreads = 256;

bool isStorable(std::optional<QuantType> type) {
  return !type || hasMatmul(*type);
}

Status checkTarget(const ConvertOptions& options) {
  if (!options.target.ends_with(kTargetEnding)) {
    return malformed("the name of the target must end in {}: {}", kTargetEnding, options.target);
  }
  std::error_code error;
  if (fs::equivalent(options.source, options.target, error)) {
    return malformed("source and target are the same file: {}", options.target);
  }
  if (!options.force && fs::exists(fs::symlink_status(options.target, error))) {
    return malformed("{} exists already: choose another name, or force its replacement",
                     options.target);
  }
  return Status::success();
}

Status checkOptions(const ConvertOptions& options) {
  const StorageChoice& storage = options.storage;
  if (storage.type && storage.preset) {
    return Status::invalid("a type and a preset exclude each other: choose one");
  }
  if (!isStorable(storage.type) || !isStorable(storage.embeddingType)) {
    return Status::invalid("matrices are stored as F32, BF16, Q8_0, Q5_K or Q4_K");
  }
  if (!storage.plan.empty() && !std::all_of(storage.plan.begin(), storage.plan.end(),
                                            [](const PlanRule& r) { return hasMatmul(r.type); })) {
    return Status::invalid("a plan names a type that matrices are not stored in");
  }
  return options.dryRun ? Status::success() : checkTarget(options);
}

uint64_t textBytes(const std::vector<std::string>& texts) {
  uint64_t nBytes = 0;
  for (const std::string& text : texts) {
    nBytes += sizeof(uint32_t) + text.size();
  }
  return nBytes;
}

uint64_t estimatedBytes(const TensorPlan& plan, const TokenizerData& tokenizer) {
  uint64_t nBytes = kFixedBytes + textBytes(tokenizer.tokens) + textBytes(tokenizer.merges) +
                    tokenizer.tokenTypes.size() * sizeof(int32_t);
  for (const PlannedTensor& tensor : plan.tensors) {
    nBytes +=
        tensor.storedBytes + zym2::kAlignment + zym2::kTensorEntryBytes + zym2::kQuantRecordBytes;
  }
  return nBytes;
}

void addToGroups(const PlannedTensor& tensor, ConvertSummary& summary) {
  const auto alike = [&](const TensorGroup& group) {
    return group.name == tensor.spec.tensor->suffix &&
           group.sourceType == tensor.source->typeName && group.storedType == tensor.stored &&
           group.reason == tensor.reason;
  };
  auto group = std::find_if(summary.groups.begin(), summary.groups.end(), alike);
  if (group == summary.groups.end()) {
    group = summary.groups.insert(group, {std::string(tensor.spec.tensor->suffix),
                                          tensor.source->typeName, tensor.stored, tensor.reason});
  }
  group->count += 1;
  group->sourceBytes += tensor.source->nBytes;
  group->storedBytes += tensor.storedBytes;
  summary.sourceBytes += tensor.source->nBytes;
  summary.storedBytes += tensor.storedBytes;
}

// The plugin interface runs models of one shape alone; of others, whoever loads a container there
// would hear no more than that it cannot be run.
std::vector<std::string> interfaceRemarks(const SourceModel& source) {
  if (const std::string difference = differenceFromFixed(source.shape); !difference.empty()) {
    return {"the plugin interface runs " + difference + "; zym itself runs this one"};
  }
  if (source.shape.ownOutput) {
    return {
        "the output head differs from the embedding, and is kept: the plugin interface, which "
        "computes logits with the embedding, does not run this model; zym itself does"};
  }
  return {};
}

ConvertSummary summarise(const SourceModel& source, const TensorPlan& plan,
                         const std::string& name) {
  ConvertSummary summary;
  summary.modelName = name.empty() ? source.name : name;
  summary.sourceFormat = source.format;
  summary.skipped = source.skipped;
  summary.remarks = source.remarks;
  for (const auto& more : {plan.remarks, interfaceRemarks(source)}) {
    summary.remarks.insert(summary.remarks.end(), more.begin(), more.end());
  }
  for (const PlannedTensor& tensor : plan.tensors) {
    addToGroups(tensor, summary);
  }
  return summary;
}

// One conversion from the checked plan on: writer and progress move together.
class ContainerStream {
 public:
  ContainerStream(const ConvertOptions& convertOptions, ProgressSink& progressSink)
      : options(convertOptions), progress(progressSink) {}

  Status write(const SourceModel& source, const TensorPlan& plan, const ConvertSummary& summary,
               TokenizerData tokenizer) {
    totalBytes = summary.sourceBytes;
    Status status = writer.create(options.target,
                                  options.force ? ExistingFile::IsReplaced : ExistingFile::IsKept);
    writer.storeChecksums();
    for (const PlannedTensor& tensor : plan.tensors) {
      if (status.ok()) {
        status = writeTensor(source, tensor);
      }
    }
    // Also asked at the end: what follows is short, and then it is too late.
    if (status.ok()) {
      status = goOn();
    }
    if (!status.ok()) {
      return status;
    }
    addMetadata(source, plan, tokenizer, options, summary, writer);
    writer.setTokenizer(std::move(tokenizer));
    return writer.finish();
  }

  bool wasCancelled() const { return cancelled; }

 private:
  Status goOn() {
    cancelled = cancelled || progress.cancelled();
    return cancelled ? Status::ioError("cancelled") : Status::success();
  }

  Status writeTensor(const SourceModel& source, const PlannedTensor& tensor) {
    Status status = writer.beginTensor(tensor.spec.name, tensor.stored, tensor.spec.dims);
    if (!status.ok()) {
      return status;
    }
    const unsigned threads =
        std::clamp(options.threads != 0 ? options.threads : std::thread::hardware_concurrency(), 1U,
                   kMostThreads);
    status = streamTensor(tensor, source, threads,
                          [&](const uint8_t* data, size_t nBytes, uint64_t nSource) {
                            return writeBytes(data, nBytes, nSource);
                          });
    return status.ok() ? writer.endTensor() : status;
  }

  Status writeBytes(const uint8_t* data, size_t nBytes, uint64_t nSource) {
    Status status = goOn();
    if (status.ok()) {
      status = writer.writeTensorData(data, nBytes);
    }
    if (!status.ok()) {
      return status;
    }
    doneBytes += nSource;
    progress.onProgress(doneBytes, totalBytes);
    return status;
  }

  const ConvertOptions& options;
  ProgressSink& progress;
  ZYM2Writer writer;  // its destruction removes what finish() has not completed
  uint64_t totalBytes = 0;
  uint64_t doneBytes = 0;
  bool cancelled = false;
};

Status convert(const ConvertOptions& options, ProgressSink& progress, ConvertResult& result) {
  SourceModel source;
  TensorPlan plan;
  TokenizerData tokenizer;
  Status status = checkOptions(options);
  if (status.ok()) {
    status = readSourceModel(options.source, source);
  }
  if (status.ok()) {
    decidePredictionLayer(source, options.keepPrediction);
    status = decideOutputHead(source, progress);
  }
  if (status.ok()) {
    status = planTensors(source, options.storage, plan);
  }
  if (status.ok()) {
    status = checkNorms(plan.tensors, source);
  }
  result.cancelled = !status.ok() && progress.cancelled();
  if (!status.ok()) {
    return status;
  }
  status =
      buildTokenizer(std::move(source.vocabulary), plan.sizes.vocab, options.vocabulary, tokenizer);
  if (!status.ok()) {
    return status;
  }
  result.summary = summarise(source, plan, options.name);
  result.summary.fileBytes = estimatedBytes(plan, tokenizer);
  if (options.dryRun) {
    return status;
  }
  status = checkFreeSpace(options.target, result.summary.fileBytes);
  if (!status.ok()) {
    return status;
  }
  ContainerStream stream(options, progress);
  status = stream.write(source, plan, result.summary, std::move(tokenizer));
  result.cancelled = stream.wasCancelled();
  return status;
}

}  // namespace

ConvertResult convertModel(const ConvertOptions& options, ProgressSink& progress) {
  ConvertResult result;
  try {
    result.status = convert(options, progress, result);
  } catch (const std::bad_alloc&) {
    result.status = Status::ioError("not enough memory");
  } catch (const std::exception& error) {
    result.status = malformed("unexpected failure: {}", error.what());
  }
  return result;
}

}  // namespace kel::convert
