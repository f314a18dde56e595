// Opening a container of real proportions, page cache warm: 1,000 tensors, 250,000 tokens,
// 250,000 merges. The aim is 150 ms for the loader, of which 2 ms for the reader alone.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

#include "container/zym2_writer.h"
#include "container/zym_loader.h"

namespace {

constexpr size_t kTensors = 1000;
constexpr size_t kTokens = 250000;

void require(const kel::Status& status) {
  if (!status.ok()) {
    throw std::runtime_error(status.message);
  }
}

// Strings of 1 to 14 letters, the spread of a byte-level vocabulary.
std::string randomPiece(std::mt19937& random) {
  std::string piece(1 + random() % 14, ' ');
  for (char& letter : piece) {
    letter = static_cast<char>('a' + random() % 26);
  }
  return piece;
}

kel::TokenizerData makeTokenizer() {
  std::mt19937 random(1);
  kel::TokenizerData tables;
  for (size_t i = 0; i < kTokens; ++i) {
    tables.tokens.push_back(randomPiece(random));
    tables.merges.push_back(randomPiece(random) + " " + randomPiece(random));
  }
  tables.tokenTypes.assign(kTokens, 1);
  tables.eosId = 0;
  return tables;
}

// Written once, removed when the program ends.
class ModelFile {
 public:
  ModelFile() {
    std::string name = (std::filesystem::temp_directory_path() / "zym-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    folder = name;
    path = (folder / "model.zym").string();
    kel::ZYM2Writer writer;
    require(writer.create(path));
    writer.addMetaStr("general.architecture", "qwen35");
    writer.setTokenizer(makeTokenizer());
    const std::string data(4096, '\0');
    for (size_t i = 0; i < kTensors; ++i) {
      const std::string tensor = "blk." + std::to_string(i / 20) + ".part" + std::to_string(i % 20);
      require(writer.addTensor(tensor + ".weight", kel::QuantType::F32, {32, 32}, data.data(),
                               data.size()));
    }
    require(writer.finish());
  }
  ~ModelFile() {
    std::error_code ignored;  // nothing depends on the clean-up
    std::filesystem::remove_all(folder, ignored);
  }
  ModelFile(const ModelFile&) = delete;
  ModelFile& operator=(const ModelFile&) = delete;

  const char* name() const { return path.c_str(); }

 private:
  std::filesystem::path folder;
  std::string path;
};

const ModelFile& model() {
  static const ModelFile file;
  return file;
}

template <typename Opener>
void openRepeatedly(benchmark::State& state) {
  const char* path = model().name();
  for (auto _ : state) {
    Opener opener;
    const kel::Status status = opener.open(path);
    if (!status.ok()) {
      return state.SkipWithError(status.message.c_str());
    }
    benchmark::DoNotOptimize(opener);
    state.PauseTiming();
    opener.close();
    state.ResumeTiming();
  }
  state.SetLabel("1000 tensors, 250000 tokens, 250000 merges");
}

void loaderOpen(benchmark::State& state) {
  openRepeatedly<kel::ZYMLoader>(state);
}
void readerOpen(benchmark::State& state) {
  openRepeatedly<kel::ZYM2Reader>(state);
}

BENCHMARK(loaderOpen)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(readerOpen)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly();

}  // namespace
