// Writes one ZYM2 container. Tensor bytes are streamed, so a model of any size is written in
// constant memory (the index costs some 200 bytes a tensor).
//
//   ZYM2Writer writer;
//   Status s = writer.create("model.zym");
//   writer.addMetaStr("general.architecture", "qwen35");
//   writer.setTokenizer(std::move(tables));
//   if (s.ok()) s = writer.addTensor("token_embd.weight", QuantType::F32, {64, 300}, data, bytes);
//   if (s.ok()) s = writer.finish();
//
// The file grows without a name in the target's folder (output_file.h); finish() writes the index,
// the other sections and the header, syncs, and names it. Until finish() succeeds the target is
// untouched; a failure, abandon() or destruction drops the file. After a failure every
// later call returns the first failure's status, until abandon(). Messages start with
// "ZYM2Writer: "; IoError means that the system refused (the message names file and reason),
// InvalidFormat that the caller erred. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "container/checksum.h"
#include "container/output_file.h"
#include "container/status.h"
#include "container/tokenizer_data.h"
#include "container/zym2_format.h"
#include "quant/quant_type.h"

namespace kel {

class ZYM2Writer {
 public:
  ZYM2Writer() = default;
  ~ZYM2Writer();
  ZYM2Writer(const ZYM2Writer&) = delete;
  ZYM2Writer& operator=(const ZYM2Writer&) = delete;

  // Starts a file that finish() will name path. An existing target is replaced, or kept and
  // an error, only by finish().
  Status create(const std::string& path, ExistingFile existing = ExistingFile::IsReplaced);

  // Metadata, in call order, at any time before finish(). Keys are at most 65,535 bytes, values
  // less than 4 GiB; what is longer makes the next call that returns a status fail.
  void addMetaU32(std::string_view key, uint32_t value);
  void addMetaI32(std::string_view key, int32_t value);
  void addMetaF32(std::string_view key, float value);
  void addMetaU64(std::string_view key, uint64_t value);
  void addMetaStr(std::string_view key, std::string_view value);
  void addMetaU32Array(std::string_view key, const std::vector<uint32_t>& values);

  // Optional sections, at any time before finish().
  void setTokenizer(TokenizerData tables);
  void setText(std::string bytes);
  void setHeaderWords(uint32_t wordA, uint64_t wordB, uint64_t wordC);
  // Quant info is written by default (all zero); false leaves the section out.
  void setQuantInfo(bool present);
  // Adds the checksum of every section to the metadata, as its last entries (checksum.h). Before
  // the first tensor: later it makes the next call that returns a status fail.
  void storeChecksums();

  // A tensor in one call. name: unique, 1 to 64 bytes, no zero byte. dims: innermost first, at most
  // four. data: byteSize bytes, stored as they are; type and shape are not held against them.
  Status addTensor(std::string_view name, QuantType type, const std::vector<uint64_t>& dims,
                   const void* data, uint64_t byteSize);
  // The same in pieces: begin, any number of writes, end. The stored byte size is what was written.
  Status beginTensor(std::string_view name, QuantType type, const std::vector<uint64_t>& dims);
  Status writeTensorData(const void* data, size_t nBytes);
  Status endTensor();

  // Completes the file: index, remaining sections, header, sync, rename, sync of the folder.
  Status finish();
  // Drops the file and everything set for it, a failure too: the writer is as new, the target as it
  // was. Safe at any time. finish() leaves the writer as new likewise.
  void abandon();

 private:
  bool beginMeta(std::string_view key, zym2::MetaType type, size_t valueLength);
  Status writeSections();
  Status writeSection(zym2::SectionType type, std::string_view bytes);
  void addSection(zym2::SectionType type, uint64_t offset);  // what was appended since offset
  Status writeTokenizer();
  Status writeIndex();
  Status writeMeta();
  void addChecksums();
  Status alignTensor();
  Status writeHead();
  Status fail(const std::string& what);
  Status check(Status status);  // remembers a failure and drops the file

  OutputFile out;
  Status failure;
  zym2::Header header{};
  std::string meta;  // the entries as stored
  uint32_t metaCount = 0;
  std::optional<TokenizerData> tokenizer;
  std::optional<std::string> text;
  bool quantInfo = true;
  std::optional<Checksum> weightSum;  // present where checksums are stored
  std::vector<std::pair<zym2::SectionType, std::string>> checksums;  // of sections written so far
  uint64_t weightsOffset = 0;
  bool inTensor = false;
  std::unordered_set<std::string> names;
  std::vector<zym2::TensorEntry> tensors;  // in call order until finish() sorts them
  std::vector<zym2::SectionEntry> sections;
};

}  // namespace kel
