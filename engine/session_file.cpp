// Context::save and Context::load. docs/engine.md has the layout of the file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/checksum.h"
#include "container/descriptors.h"
#include "container/output_file.h"
#include "engine/context.h"

namespace engine {

namespace {

using kel::Status;

static_assert(std::endian::native == std::endian::little);

constexpr char kMagic[4] = {'Z', 'Y', 'M', 'S'};
constexpr uint16_t kVersion = 1;
constexpr size_t kReadBytes = size_t{1} << 20;
constexpr uint64_t kMostNoteBytes = uint64_t{1} << 30;

struct Head {
  char magic[4];
  uint16_t version;
  uint16_t cacheType;
  char model[kel::kChecksumDigits];  // fingerprint of the model's file
  uint64_t noteBytes;
  uint64_t tokens;
  uint64_t stateBytes;
};
static_assert(sizeof(Head) == 64);

// What tells a model from all others: its metadata, which hold the checksum of its weights where
// the converter wrote them, and the index of its tensors.
std::string fingerprint(const Model& model) {
  kel::Checksum sum;
  for (const kel::zym2::SectionType type :
       {kel::zym2::SectionType::Meta, kel::zym2::SectionType::TensorIndex}) {
    const kel::ZYM2Reader& reader = model.file().reader;
    sum.update(reader.sectionData(type), reader.sectionSize(type));
  }
  return sum.hex();
}

const uint8_t* bytesOf(const float* values) {
  return reinterpret_cast<const uint8_t*>(values);
}
uint8_t* bytesOf(float* values) {
  return reinterpret_cast<uint8_t*>(values);
}

// Calls visit(data, bytes) for every stretch of a layer's state after `position` tokens, in the
// order of the file.
template <typename Layer, typename Visit>
void visitState(const qwen35::Model& m, Layer& layer, uint64_t position, const Visit& visit) {
  if (layer.isLinear) {
    visit(bytesOf(layer.ssmState.data()), layer.ssmState.size() * sizeof(float));
    visit(bytesOf(layer.convState.data()), layer.convState.size() * sizeof(float));
    return;
  }
  const size_t rowBytes = m.headDim * qwen35::cacheElementBytes(m.cacheType);
  for (auto* cache : {&layer.kCache, &layer.vCache}) {
    for (uint64_t head = 0; head < m.nHeadKv; ++head) {
      visit(bytesOf(cache->data()) + head * m.maxCtx * rowBytes, position * rowBytes);
    }
  }
}

uint64_t stateBytes(const qwen35::Model& m, uint64_t position) {
  uint64_t nBytes = 0;
  for (const qwen35::Layer& layer : m.layers) {
    visitState(m, layer, position, [&](const uint8_t*, size_t count) { nBytes += count; });
  }
  return nBytes;
}

// Appends and adds up.
class Output {
 public:
  Status create(const std::string& path) { return file.create(path); }
  void append(const void* data, size_t nBytes) {
    if (status.ok()) {
      sum.update(data, nBytes);
      status = file.append(data, nBytes);
    }
  }
  Status finish() {
    const std::string digits = sum.hex();
    if (status.ok()) {
      status = file.append(digits.data(), digits.size());
    }
    return status.ok() ? file.commit() : status;
  }

 private:
  kel::OutputFile file;
  kel::Checksum sum;
  Status status;
};

// A file that is read from its beginning to its end.
class Input {
 public:
  explicit Input(std::string name) : path(std::move(name)) {}
  ~Input() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  Status open() {
    fd = kel::aboveStandardStreams(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (fd < 0 || ::fstat(fd, &about) != 0) {
      return refused();
    }
    if (!S_ISREG(about.st_mode)) {
      return Status::invalid(path + ": is no file");
    }
    bytes = static_cast<uint64_t>(about.st_size);
    return Status::success();
  }

  uint64_t size() const { return bytes; }

  Status rewind() { return ::lseek(fd, 0, SEEK_SET) == 0 ? Status::success() : refused(); }

  Status read(void* out, uint64_t nBytes) {
    auto* at = static_cast<char*>(out);
    while (nBytes > 0) {
      const ssize_t got = ::read(fd, at, std::min<uint64_t>(nBytes, kReadBytes));
      if (got < 0 && errno == EINTR) {
        continue;
      }
      if (got < 0) {
        return refused();
      }
      if (got == 0) {
        return cutShort();
      }
      at += got;
      nBytes -= static_cast<uint64_t>(got);
    }
    return Status::success();
  }

  Status cutShort() const { return Status::invalid(path + ": the session file was cut short"); }

 private:
  Status refused() const { return Status::ioError(path + ": " + std::strerror(errno)); }

  std::string path;
  int fd = -1;
  uint64_t bytes = 0;
};

Status damaged(const std::string& path) {
  return {kel::StatusCode::Corrupted, path + ": the session file is damaged"};
}

Status foreign(const std::string& path, const std::string& what) {
  return {kel::StatusCode::Unsupported, path + ": " + what};
}

// What a session must be of.
struct Wanted {
  std::string model;
  qwen35::CacheType cacheType;
};

Status readHead(Input& input, const std::string& path, const Wanted& wanted, Head& head) {
  const bool isLongEnough = input.size() >= sizeof(head) + kel::kChecksumDigits;
  Status status = isLongEnough ? input.read(&head, sizeof(head)) : Status::success();
  if (!status.ok()) {
    return status;
  }
  if (!isLongEnough || std::memcmp(head.magic, kMagic, sizeof(kMagic)) != 0) {
    return Status::invalid(path + ": is no session file");
  }
  if (head.version != kVersion) {
    return foreign(path, "is a session file of version " + std::to_string(head.version) +
                             "; this is version " + std::to_string(kVersion));
  }
  if (wanted.model != std::string_view(head.model, sizeof(head.model))) {
    return foreign(path, "the session is of another model");
  }
  return head.cacheType == static_cast<uint16_t>(wanted.cacheType)
             ? status
             : foreign(path, "the session has caches of another type");
}

// Held against the file before anything of a stated size is allocated.
Status checkSize(const Input& input, const std::string& path, const Head& head,
                 uint64_t stateBytesNeeded) {
  if (head.noteBytes > kMostNoteBytes || head.stateBytes != stateBytesNeeded) {
    return damaged(path);
  }
  const uint64_t needed = sizeof(head) + head.noteBytes +
                          head.tokens * (sizeof(int32_t) + sizeof(uint8_t)) + head.stateBytes +
                          kel::kChecksumDigits;
  if (input.size() < needed) {
    return input.cutShort();
  }
  return input.size() == needed ? Status::success() : damaged(path);
}

// That everything in front of the checksum adds up to it.
Status checkSum(Input& input, const std::string& path) {
  kel::Checksum sum;
  std::vector<char> buffer(kReadBytes);
  Status status = input.rewind();
  for (uint64_t left = input.size() - kel::kChecksumDigits; status.ok() && left > 0;) {
    const uint64_t count = std::min<uint64_t>(left, buffer.size());
    status = input.read(buffer.data(), count);
    sum.update(buffer.data(), count);
    left -= count;
  }
  char stored[kel::kChecksumDigits];
  if (status.ok()) {
    status = input.read(stored, sizeof(stored));
  }
  if (status.ok() && sum.hex() != std::string_view(stored, sizeof(stored))) {
    status = damaged(path);
  }
  return status;
}

// From the beginning of the file to where the state begins.
Status readTokens(Input& input, Head& head, std::string& note, std::vector<Token>& tokens) {
  note.resize(head.noteBytes);
  std::vector<int32_t> ids(head.tokens);
  std::vector<uint8_t> generated(head.tokens);
  Status status = input.rewind();
  for (const auto& [to, nBytes] : {std::pair<void*, uint64_t>{&head, sizeof(head)},
                                   {note.data(), note.size()},
                                   {ids.data(), ids.size() * sizeof(int32_t)},
                                   {generated.data(), generated.size()}}) {
    if (status.ok()) {
      status = input.read(to, nBytes);
    }
  }
  tokens.resize(head.tokens);
  for (size_t i = 0; i < tokens.size(); ++i) {
    tokens[i] = {ids[i], generated[i] != 0};
  }
  return status;
}

}  // namespace

bool isSessionFile(const std::string& path) {
  Input input(path);
  char magic[sizeof(kMagic)];
  return input.open().ok() && input.read(magic, sizeof(magic)).ok() &&
         std::memcmp(magic, kMagic, sizeof(kMagic)) == 0;
}

Status Context::save(const std::string& path, std::string_view note) const {
  Output out;
  Status status = out.create(path);
  if (!status.ok()) {
    return status;
  }
  Head head{};
  std::memcpy(head.magic, kMagic, sizeof(kMagic));
  head.version = kVersion;
  head.cacheType = static_cast<uint16_t>(weights.cacheType);
  std::memcpy(head.model, fingerprint(*shared).data(), sizeof(head.model));
  head.noteBytes = note.size();
  head.tokens = position();
  head.stateBytes = stateBytes(weights, position());
  out.append(&head, sizeof(head));
  out.append(note.data(), note.size());
  std::vector<int32_t> ids;
  std::vector<uint8_t> generated;
  for (const Token& token : fed) {
    ids.push_back(token.id);
    generated.push_back(token.isGenerated ? 1 : 0);
  }
  out.append(ids.data(), ids.size() * sizeof(int32_t));
  out.append(generated.data(), generated.size());
  for (const qwen35::Layer& layer : weights.layers) {
    visitState(weights, layer, position(),
               [&](const uint8_t* data, size_t nBytes) { out.append(data, nBytes); });
  }
  return out.finish();
}

Status Context::load(const std::string& path, std::string& note) {
  try {
    return loadSteps(path, note);
  } catch (const std::bad_alloc&) {
    return Status::ioError(path + ": not enough memory for the session");
  }
}

Status Context::loadSteps(const std::string& path, std::string& note) {
  Input input(path);
  Status status = input.open();
  Head head{};
  if (status.ok()) {
    status = readHead(input, path, {fingerprint(*shared), weights.cacheType}, head);
  }
  if (!status.ok()) {
    return status;
  }
  if (head.tokens > capacity()) {
    return Status::invalid(path + ": the session has " + std::to_string(head.tokens) +
                           " tokens, the context room for " + std::to_string(capacity()));
  }
  status = checkSize(input, path, head, stateBytes(weights, head.tokens));
  if (status.ok()) {
    status = checkSum(input, path);
  }
  std::string text;
  std::vector<Token> tokens;
  if (status.ok()) {
    status = readTokens(input, head, text, tokens);
  }
  if (!status.ok()) {
    return status;
  }
  for (const Token& token : tokens) {
    if (token.id < 0 || static_cast<uint64_t>(token.id) >= weights.nVocab) {
      return damaged(path);
    }
  }
  // From here on the context is overwritten. Only a file that changes, or a disk that fails, while
  // it is read for the second time can end this: the context is empty then.
  reset();
  for (qwen35::Layer& layer : weights.layers) {
    layer.pos = layer.isLinear ? 0 : head.tokens;
    visitState(weights, layer, head.tokens, [&](uint8_t* data, size_t nBytes) {
      if (status.ok()) {
        status = input.read(data, nBytes);
      }
    });
  }
  if (!status.ok()) {
    reset();
    return status;
  }
  fed.assign(tokens.begin(), tokens.end());
  remember();
  note = std::move(text);
  return status;
}

}  // namespace engine
