// What guessing ahead brings: tokens a second with guesses and without, run in turns, and how many
// of the guessed tokens stay.
//
//   guess_bench MODEL [ROUNDS]       (default 3 rounds)
//
// What a guess costs and saves is the model's; how often it is right is the text's. So the texts
// are given: a word is a token, and the reply is made to be the text by a mask that lets one token
// through at a time, whatever the model would have said. The three texts are such as people ask
// for: a paragraph that comes back with small changes, a summary of it, and an answer to a question
// that the prompt does not hold. Tokens that a model would cut words into, and words that it would
// choose otherwise, change the shares.
//
// A model that can talk answers questions by itself as well: what it says is its own, with guesses
// as without.
//
// Rates are medians over the rounds, of the time from the first token of a reply to its end; the
// ratio is the median of the rounds' ratios.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "container/tokenizer_data.h"
#include "engine/context.h"
#include "engine/model.h"
#include "engine/reply.h"
#include "engine/sampler.h"
#include "engine/token_mask.h"

namespace {

using engine::Context;
using engine::Message;
using engine::Reply;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kParagraph =
    "The mill stands where the river leaves the hills . It was built by three brothers in a year "
    "of little rain , and when the water came back the wheel turned so fast that the stones grew "
    "hot . The eldest brother raised the dam by one board . The second brother lowered it again . "
    "The youngest one said nothing , went up the hill , and counted the boards of the old mill on "
    "the other side . When he came back he told them that the old mill had a gate in its dam , and "
    "that the gate was opened when the water was high and closed when the water was low . So they "
    "built a gate . The wheel has turned at the same speed ever since , and the flour of the mill "
    "is known in every village between the hills and the sea . ";

constexpr std::string_view kEdited =
    "The mill stands where the river leaves the mountains . It was built by three sisters in a "
    "year of little rain , and when the water came back the wheel turned so fast that the stones "
    "grew hot . The eldest sister raised the dam by one board . The second sister lowered it again "
    ". The youngest one said nothing , went up the mountain , and counted the boards of the old "
    "mill on the other side . When she came back she told them that the old mill had a gate in its "
    "dam , and that the gate was opened when the water was high and closed when the water was low "
    ". So they built a gate . The wheel has turned at the same speed ever since , and the flour of "
    "the mill is known in every village between the mountains and the sea . ";

constexpr std::string_view kSummary =
    "Three brothers built a mill where the river leaves the hills . At high water the wheel turned "
    "so fast that the stones grew hot . Raising and lowering the dam did not help , until the "
    "youngest one learned from the old mill on the other side to build a gate in its dam , which "
    "was opened when the water was high and closed when the water was low . Since then the wheel "
    "has turned at the same speed , and the flour of the mill is known in every village . ";

constexpr std::string_view kQuestion =
    "Why does bread rise , and what can I do when it does not ? ";

constexpr std::string_view kAnswer =
    "Yeast eats sugar and gives off gas . The gas is caught in the dough , which kneading has made "
    "elastic , and so the loaf grows . When nothing happens the yeast is usually old or was killed "
    "by water that was too hot : stir some into warm water with a spoon of sugar and look for foam "
    "after ten minutes . If there is foam , give the dough more time and a warmer place . A cold "
    "kitchen can double the time it takes . Too much salt slows yeast as well , and a dry dough "
    "holds less gas than a soft one . Do not add more flour until the dough has rested . ";

struct Case {
  const char* name;
  std::string prompt;
  std::string_view reply;
};

std::vector<Case> cases() {
  return {{"editing", "Change the brothers into sisters : " + std::string(kParagraph), kEdited},
          {"summarising", "Say it in fewer words : " + std::string(kParagraph), kSummary},
          {"plain chat", std::string(kQuestion), kAnswer}};
}

// An id for each word, none of which is special or ends a reply.
class Words {
 public:
  explicit Words(const engine::Model& model) : tokenizer(model.tokenizer()) {}

  std::vector<int32_t> ids(std::string_view text) {
    std::vector<int32_t> result;
    std::istringstream words{std::string(text)};
    for (std::string word; words >> word;) {
      const auto known = byWord.find(word);
      result.push_back(known != byWord.end() ? known->second : add(word));
    }
    return result;
  }

 private:
  int32_t add(const std::string& word) {
    while (next < tokenizer.tokenTypes.size() &&
           (kel::isSpecialTokenType(tokenizer.tokenTypes[next]) ||
            static_cast<int32_t>(next) == tokenizer.eosId)) {
      ++next;
    }
    if (next >= tokenizer.tokens.size()) {
      std::fputs("the vocabulary is too small for the words of the texts\n", stderr);
      std::exit(1);
    }
    return byWord[word] = static_cast<int32_t>(next++);
  }

  const kel::Tokenizer& tokenizer;
  std::map<std::string, int32_t> byWord;
  size_t next = 0;
};

struct Run {
  double seconds = 0;
  uint64_t tokens = 0;  // timed: all but the first of each reply
  uint64_t accepted = 0;
  uint64_t rejected = 0;

  void operator+=(const Run& other) {
    seconds += other.seconds;
    tokens += other.tokens;
    accepted += other.accepted;
    rejected += other.rejected;
  }
  double rate() const { return static_cast<double>(tokens) / seconds; }
};

[[noreturn]] void fail(const kel::Status& status) {
  std::fprintf(stderr, "%s\n", status.message.c_str());
  std::exit(1);
}

// Times what generate(sinks, reply) does from the first token on.
template <typename Generate>
Run timed(Context& context, const Generate& generate) {
  const engine::ContextStatistics before = context.statistics();
  Clock::time_point first;
  Reply reply;
  engine::ReplySinks sinks;
  sinks.token = [&](int32_t, std::span<const float>) {
    if (first == Clock::time_point()) {
      first = Clock::now();
    }
  };
  if (const kel::Status status = generate(sinks, reply); !status.ok()) {
    fail(status);
  }
  const engine::ContextStatistics after = context.statistics();
  return {std::chrono::duration<double>(Clock::now() - first).count(),
          std::max<uint64_t>(reply.tokens, 1) - 1, after.acceptedGuesses - before.acceptedGuesses,
          after.rejectedGuesses - before.rejectedGuesses};
}

Run runGiven(Context& context, const std::vector<int32_t>& prompt,
             const std::vector<int32_t>& given, bool guesses) {
  engine::TokenMask next(context.model().sizes().vocab, false);
  engine::ReplyOptions options{.maxTokens = given.size(), .guesses = guesses};
  options.sampling.mask = &next;
  engine::Sampler sampler(1);
  size_t at = 0;
  next.allow(static_cast<size_t>(given[0]));
  context.reset();
  return timed(context, [&](engine::ReplySinks& sinks, Reply& reply) {
    const auto start = sinks.token;
    sinks.token = [&, start](int32_t id, std::span<const float> logits) {
      start(id, logits);
      next.setAll(false);
      next.allow(static_cast<size_t>(given[std::min(++at, given.size() - 1)]));
    };
    return generateText(context, sampler, prompt, options, sinks, reply);
  });
}

// One conversation, greedy.
Run runOwn(Context& context, bool guesses) {
  engine::Sampler sampler(1);
  std::vector<Message> messages;
  Run all;
  context.reset();
  for (const char* question :
       {"Hello", "What is the capital of Canada?", "What is the capital of Canada?",
        "What is your name?", "What is a chat turn?", "What is your name?"}) {
    messages.emplace_back();
    messages.back().content = question;
    Reply last;
    all += timed(context, [&](engine::ReplySinks& sinks, Reply& reply) {
      const kel::Status status =
          generateReply(context, sampler, {.messages = messages},
                        {.maxTokens = 100, .guesses = guesses}, sinks, reply);
      last = reply;
      return status;
    });
    messages.push_back(last.message);
  }
  return all;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double percent(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

// With guesses and without in turns, a round of both first that warms up.
template <typename Measure>
void measure(const char* name, size_t rounds, const Measure& run) {
  std::vector<double> without;
  std::vector<double> with;
  std::vector<double> ratios;
  Run guessed;
  for (size_t round = 0; round <= rounds; ++round) {
    const Run plain = run(false);
    const Run ahead = run(true);
    if (round > 0) {
      without.push_back(plain.rate());
      with.push_back(ahead.rate());
      ratios.push_back(ahead.rate() / plain.rate());
      guessed += ahead;
    }
  }
  std::printf("| %-12s | %6llu | %8.2f | %8.2f | %5.2f | %8.0f %% | %12.0f %% |\n", name,
              static_cast<unsigned long long>(guessed.tokens / rounds), median(without),
              median(with), median(ratios),
              percent(guessed.accepted, guessed.accepted + guessed.rejected),
              percent(guessed.accepted, guessed.tokens));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  if (argc < 2 || rounds < 1) {
    std::fputs("usage: guess_bench MODEL [ROUNDS]\n", stderr);
    return 2;
  }
  std::shared_ptr<const engine::Model> model;
  kel::Status status = engine::Model::open(argv[1], model);
  std::unique_ptr<Context> context;
  if (status.ok()) {
    status = Context::create(model, {.positions = 2048}, context);
  }
  if (!status.ok()) {
    fail(status);
  }
  std::printf("| %-12s | tokens | without  | with     | ratio | accepted   | of the reply   |\n",
              ("medians of " + std::to_string(rounds)).c_str());
  std::printf(
      "|--------------|-------:|---------:|---------:|------:|-----------:|---------------:|\n");
  Words words(*model);
  for (const Case& text : cases()) {
    const std::vector<int32_t> prompt = words.ids(text.prompt);
    const std::vector<int32_t> given = words.ids(text.reply);
    measure(text.name, static_cast<size_t>(rounds),
            [&](bool guesses) { return runGiven(*context, prompt, given, guesses); });
  }
  if (model->tokenizer().tokenToId("<|im_start|>") >= 0) {
    measure("its own chat", static_cast<size_t>(rounds),
            [&](bool guesses) { return runOwn(*context, guesses); });
  }
  return 0;
}
