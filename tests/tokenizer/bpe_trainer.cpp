#include "tests/tokenizer/bpe_trainer.h"

#include <map>
#include <queue>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tokenizer/utf8.h"
#include "tokenizer/whitespace.h"
#include "tokenizer/word_splitter.h"

namespace kel::testing {
namespace {

using Pair = std::pair<uint32_t, uint32_t>;  // symbol numbers

struct PairHash {
  size_t operator()(const Pair& pair) const {
    return (uint64_t{pair.first} << 32U | pair.second) * 0x9E3779B97F4A7C15U >> 16U;
  }
};

struct Word {
  std::vector<uint32_t> symbols;
  int64_t count = 0;
};

class Trainer {
 public:
  Trainer(std::string_view text, std::string_view marker) {
    std::map<std::string, int64_t> wordCounts;
    for (const std::string_view word : splitWords(text)) {
      std::string escaped;
      appendEscaped(word, marker, escaped);
      ++wordCounts[escaped];
    }
    for (const auto& [word, count] : wordCounts) {
      addWord(word, count);
    }
  }

  std::vector<std::string> symbols;  // characters first, then what merges make
  std::vector<std::string> merges;

  // The first rule joins two markers, whatever their count: indented text puts it there in real
  // vocabularies, and a tokenizer tells its marker by it.
  void train(std::string_view marker, size_t nMerges) {
    const uint32_t space = number(std::string(marker));
    merge({space, space});
    while (merges.size() < nMerges && !queue.empty()) {
      const auto [count, negated] = queue.top();
      queue.pop();
      const Pair pair = {~negated.first, ~negated.second};
      if (pairCounts[pair] != count) {
        continue;  // has changed since it was queued
      }
      if (count < 2) {
        return;
      }
      merge(pair);
    }
  }

 private:
  void merge(const Pair& pair) {
    merges.push_back(symbols[pair.first] + " " + symbols[pair.second]);
    join(pair, number(symbols[pair.first] + symbols[pair.second]));
  }

  uint32_t number(const std::string& symbol) {
    const auto [entry, isNew] = numbers.try_emplace(symbol, static_cast<uint32_t>(symbols.size()));
    if (isNew) {
      symbols.push_back(symbol);
    }
    return entry->second;
  }

  void addWord(std::string_view text, int64_t count) {
    Word word;
    word.count = count;
    for (size_t at = 0; at < text.size();) {
      const size_t end = characterEnd(text, at);
      word.symbols.push_back(number(std::string(text.substr(at, end - at))));
      at = end;
    }
    words.push_back(std::move(word));
    countPairs(words.size() - 1, 1);
  }

  // Queued with the numbers complemented: among equal counts the oldest symbols come first.
  void countPairs(size_t wordIndex, int64_t sign) {
    const Word& word = words[wordIndex];
    for (size_t i = 0; i + 1 < word.symbols.size(); ++i) {
      const Pair pair = {word.symbols[i], word.symbols[i + 1]};
      const int64_t count = pairCounts[pair] += sign * word.count;
      queue.push({count, {~pair.first, ~pair.second}});
      if (sign > 0) {
        pairWords[pair].insert(wordIndex);
      }
    }
  }

  void join(const Pair& pair, uint32_t joined) {
    const std::unordered_set<size_t> affected = std::exchange(pairWords[pair], {});
    for (const size_t wordIndex : affected) {
      countPairs(wordIndex, -1);
      std::vector<uint32_t> after;
      for (const uint32_t symbol : words[wordIndex].symbols) {
        if (symbol == pair.second && !after.empty() && after.back() == pair.first) {
          after.back() = joined;
        } else {
          after.push_back(symbol);
        }
      }
      words[wordIndex].symbols = std::move(after);
      countPairs(wordIndex, 1);
    }
  }

  std::vector<Word> words;
  std::unordered_map<std::string, uint32_t> numbers;
  std::unordered_map<Pair, int64_t, PairHash> pairCounts;
  std::unordered_map<Pair, std::unordered_set<size_t>, PairHash> pairWords;
  std::priority_queue<std::pair<int64_t, Pair>> queue;
};

}  // namespace

TokenizerData trainBpe(std::string_view text, std::string_view marker, size_t nMerges) {
  Trainer trainer(text, marker);
  trainer.train(marker, nMerges);

  TokenizerData data;
  std::unordered_set<std::string> known;
  const auto addToken = [&](const std::string& token, int32_t type) {
    if (!known.insert(token).second) {
      return;
    }
    data.tokens.push_back(token);
    data.tokenTypes.push_back(type);
  };
  for (int byte = 0; byte < 256; ++byte) {
    addToken(byte == ' ' ? std::string(marker) : std::string(1, static_cast<char>(byte)), 1);
  }
  data.merges = std::move(trainer.merges);
  for (const std::string& symbol : trainer.symbols) {
    if (symbol.size() == characterBytes(symbol.front())) {
      for (size_t n = 1; n < symbol.size(); ++n) {
        data.merges.push_back(symbol.substr(0, n) + " " + symbol[n]);
        addToken(symbol.substr(0, n + 1), 1);
      }
    }
    addToken(symbol, 1);
  }
  for (const char* special : {"<|endoftext|>", "<|im_start|>", "<|im_end|>"}) {
    addToken(special, 3);
  }
  data.eosId = static_cast<int32_t>(data.tokens.size()) - 1;
  return data;
}

}  // namespace kel::testing
