// Speed of several contexts that are fed together, over one model: a pass reads each weight once
// for all of them.
//
//   together_bench MODEL [--prompt N] [--steps N] [--rounds N] [--threads N]
//
// The prompt (default 128 tokens) is read once and taken over by the other contexts; then 1, 2, 4
// and 8 of them are fed tokens (default 32) behind it, in turn, several rounds (default 3). Prints
// medians of the passes. Which tokens those are does not matter to the speed.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engine/context.h"
#include "engine/model.h"
#include "engine/passes.h"
#include "qwen35/simd/dispatch.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kCounts[] = {1, 2, 4, 8};
constexpr size_t kMostContexts = 8;

struct Options {
  uint64_t prompt = 128;
  uint64_t steps = 32;
  uint64_t rounds = 3;
  uint64_t threads = 0;
};

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "together_bench: %s\n", message.c_str());
  std::exit(2);
}

void require(const kel::Status& status) {
  if (!status.ok()) {
    fail(status.message);
  }
}

Options parse(int argc, char** argv) {
  Options options;
  const struct {
    const char* name;
    uint64_t* value;
    bool mayBeZero;
  } known[] = {{"--prompt", &options.prompt, false},
               {"--steps", &options.steps, false},
               {"--rounds", &options.rounds, false},
               {"--threads", &options.threads, true}};
  for (int i = 2; i < argc; i += 2) {
    const auto* option = std::find_if(std::begin(known), std::end(known), [&](const auto& o) {
      return std::strcmp(o.name, argv[i]) == 0;
    });
    if (option == std::end(known) || i + 1 == argc) {
      fail(std::string("usage: together_bench MODEL [--prompt N] [--steps N] [--rounds N] "
                       "[--threads N], not ") +
           argv[i]);
    }
    *option->value = std::strtoull(argv[i + 1], nullptr, 10);
    if (*option->value == 0 && !option->mayBeZero) {
      fail(std::string(option->name) + " needs a number above 0");
    }
  }
  return options;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

class Bench {
 public:
  Bench(const char* path, const Options& asked) : options(asked) {
    require(engine::Model::open(path, model));
    const uint64_t positions = options.prompt + options.steps + 1;
    require(engine::Passes::create(model, {.positions = positions, .threads = options.threads},
                                   passes));
    contexts.resize(kMostContexts);
    for (auto& context : contexts) {
      require(engine::Context::create(model, {.positions = positions, .passes = passes}, context));
      pointers.push_back(context.get());
    }
    readPrompt();
  }

  size_t threads() { return passes->maxThreads(); }

  // Milliseconds of each pass over the first `count` contexts.
  std::vector<double> passesOver(size_t count) {
    const std::vector<engine::Context*> fed(pointers.begin(),
                                            pointers.begin() + static_cast<std::ptrdiff_t>(count));
    std::vector<int32_t> tokens(count);
    std::vector<kel::Status> statuses(count);
    for (engine::Context* context : fed) {
      context->resume(beyondPrompt);
    }
    std::vector<double> took;
    for (uint64_t step = 0; step < options.steps; ++step) {
      for (size_t i = 0; i < count; ++i) {
        tokens[i] = tokenAt(options.prompt + step + i);
      }
      const Clock::time_point start = Clock::now();
      engine::Context::feedTogether(fed, tokens, statuses);
      took.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      for (const kel::Status& status : statuses) {
        require(status);
      }
    }
    return took;
  }

 private:
  int32_t tokenAt(uint64_t place) const {
    return static_cast<int32_t>(place % model->sizes().vocab);
  }

  void readPrompt() {
    std::vector<int32_t> ids;
    for (uint64_t i = 0; i < options.prompt; ++i) {
      ids.push_back(tokenAt(i));
    }
    beyondPrompt = engine::promptTokens(ids);
    kel::Status status;
    contexts.front()->feed(beyondPrompt, nullptr, nullptr, status);
    require(status);
    for (auto& context : contexts) {
      context->branchFrom(beyondPrompt, pointers);
      context->remember();
    }
    beyondPrompt.push_back({-1, true});
  }

  Options options;
  std::shared_ptr<const engine::Model> model;
  std::shared_ptr<engine::Passes> passes;
  std::vector<std::unique_ptr<engine::Context>> contexts;
  std::vector<engine::Context*> pointers;
  std::vector<engine::Token> beyondPrompt;  // the prompt, and what no context has read behind it
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fail("which MODEL?");
  }
  const Options options = parse(argc, argv);
  Bench bench(argv[1], options);
  std::vector<double> took[std::size(kCounts)];
  for (uint64_t round = 0; round <= options.rounds; ++round) {
    for (size_t i = 0; i < std::size(kCounts); ++i) {
      const std::vector<double> once = bench.passesOver(kCounts[i]);
      if (round > 0) {  // the first one warms the page cache and the scratch
        took[i].insert(took[i].end(), once.begin(), once.end());
      }
    }
  }
  std::printf("kernels %s, %zu threads, behind %llu tokens; medians of %zu passes\n\n",
              qwen35::kernels().name, bench.threads(),
              static_cast<unsigned long long>(options.prompt), took[0].size());
  std::printf("| contexts | ms of a pass | tokens/s in all | ratio | tokens/s of each |\n");
  std::printf("|---------:|-------------:|----------------:|------:|-----------------:|\n");
  const double alone = 1000.0 / median(took[0]);
  for (size_t i = 0; i < std::size(kCounts); ++i) {
    const double pass = median(took[i]);
    const double all = 1000.0 * static_cast<double>(kCounts[i]) / pass;
    std::printf("| %8zu | %12.2f | %15.2f | %5.2f | %16.2f |\n", kCounts[i], pass, all, all / alone,
                1000.0 / pass);
  }
  return 0;
}
