#include "engine/vocabulary_trie.h"

#include <algorithm>
#include <array>
#include <utility>

#include "container/tokenizer_data.h"
#include "engine/chat_format.h"
#include "tokenizer/vocab_text.h"
#include "tokenizer/whitespace.h"

namespace engine {

namespace {

constexpr size_t kMaxTokenBytes = 256;

}  // namespace

VocabularyTrie::VocabularyTrie(const kel::Tokenizer& tokenizer, size_t vocabulary)
    : nIds(vocabulary) {
  const auto known = [&](int32_t id) { return id >= 0 && static_cast<size_t>(id) < nIds; };
  for (const int32_t id :
       {tokenizer.tokenToId(kTurnEnd), tokenizer.tokenToId(kTextEnd), tokenizer.eosId}) {
    if (known(id)) {
      ends.push_back(id);
    }
  }
  const auto markToken = [&](std::string_view mark) {
    const int32_t id = tokenizer.tokenToId(mark);
    return known(id) ? id : -1;
  };
  callBeginId = markToken(kCallBegin);
  callEndId = markToken(kCallEnd);
  readTokens(tokenizer);
  build();
}

void VocabularyTrie::readTokens(const kel::Tokenizer& tokenizer) {
  const kel::VocabText way = kel::vocabTextOf(tokenizer.label);
  // Whatever their types say: a reply ends at some of these, and is taken apart at the others.
  std::vector<int32_t> marks = ends;
  for (const std::string_view mark : kControlTokens) {
    marks.push_back(tokenizer.tokenToId(mark));
  }
  std::string token;
  begins.push_back(0);
  for (size_t id = 0; id < std::min(nIds, tokenizer.tokens.size()); ++id) {
    token.clear();
    const bool isSpecial =
        (id < tokenizer.tokenTypes.size() && kel::isSpecialTokenType(tokenizer.tokenTypes[id])) ||
        std::find(marks.begin(), marks.end(), static_cast<int32_t>(id)) != marks.end();
    if (!isSpecial && tokenizer.byteLevel) {
      kel::appendTokenBytes(way, tokenizer.tokens[id], token);
    } else if (!isSpecial) {
      kel::appendUnescaped(tokenizer.tokens[id], token);
    }
    if (!token.empty() && token.size() <= kMaxTokenBytes) {
      bytes += token;
      tokens.push_back(static_cast<int32_t>(id));
    }
    begins.push_back(static_cast<uint32_t>(bytes.size()));
  }
}

void VocabularyTrie::build() {
  std::sort(tokens.begin(), tokens.end(), [&](int32_t a, int32_t b) {
    const std::string_view left = bytesOf(a);
    const std::string_view right = bytesOf(b);
    return left != right ? left < right : a < b;
  });
  std::vector<uint32_t> path = {0};  // nodes of the text before
  nodes.push_back({0, 0, 0});
  std::string_view before;
  const auto closeTo = [&](size_t depth) {
    for (; path.size() > depth + 1; path.pop_back()) {
      nodes[path.back()].end = static_cast<uint32_t>(nodes.size());
    }
  };
  for (uint32_t i = 0; i < tokens.size(); ++i) {
    const std::string_view text = bytesOf(tokens[i]);
    const auto shared = static_cast<size_t>(
        std::mismatch(text.begin(), text.end(), before.begin(), before.end()).first - text.begin());
    closeTo(shared);
    for (size_t at = shared; at < text.size(); ++at) {
      path.push_back(static_cast<uint32_t>(nodes.size()));
      nodes.push_back({0, i, static_cast<uint8_t>(text[at])});
    }
    before = text;
  }
  closeTo(0);
  nodes[kRoot].end = static_cast<uint32_t>(nodes.size());

  std::array<bool, 256> isToken{};
  for (size_t child = firstChild(kRoot); child < nodes.size(); child = subtreeEnd(child)) {
    isToken[byteOf(child)] = !tokensOf(child).empty();
  }
  const auto hasAll = [&](size_t first, size_t last) {
    return std::all_of(isToken.begin() + static_cast<std::ptrdiff_t>(first),
                       isToken.begin() + static_cast<std::ptrdiff_t>(last) + 1,
                       [](bool is) { return is; });
  };
  hasAscii = isToken['\n'] && hasAll(' ', '~');
  hasAllBytes = hasAscii && hasAll(0x80, 0xBF) && hasAll(0xC2, 0xF4);
}

std::string_view VocabularyTrie::bytesOf(int32_t id) const {
  const auto at = static_cast<size_t>(id);
  if (id < 0 || at + 1 >= begins.size()) {
    return {};
  }
  return std::string_view(bytes).substr(begins[at], begins[at + 1] - begins[at]);
}

int32_t VocabularyTrie::controlToken(std::string_view mark) const {
  if (mark == kCallBegin) {
    return callBeginId;
  }
  return mark == kCallEnd ? callEndId : -1;
}

// Walks the trie through a string.
class VocabularyTrie::Filling {
 public:
  Filling(const VocabularyTrie& vocabularyTrie, StringTokens& result)
      : trie(vocabularyTrie), out(result) {}

  void walk(size_t node, const StringScan& from, uint16_t characters) {
    for (size_t child = firstChild(node); child < trie.subtreeEnd(node);
         child = trie.subtreeEnd(child)) {
      StringScan scan = from;
      switch (scan.step(trie.byteOf(child))) {
        case StringScan::Step::Refused:
          break;
        case StringScan::Step::Closed:
          out.exits.push_back({static_cast<uint32_t>(child), characters,
                               static_cast<uint16_t>(text.size()),
                               static_cast<uint32_t>(out.texts.size())});
          out.texts += text;
          break;
        case StringScan::Step::Inside: {
          const auto begun = static_cast<uint16_t>(characters + (scan.beganCharacter() ? 1 : 0));
          if (trie.hasAllBytes || !scan.isWithinBytes()) {
            for (const int32_t id : trie.tokensOf(child)) {
              out.within.allow(static_cast<size_t>(id));
              out.counted.push_back({begun, id});
            }
          }
          text += static_cast<char>(trie.byteOf(child));
          walk(child, scan, begun);
          text.pop_back();
        }
      }
    }
  }

 private:
  const VocabularyTrie& trie;
  StringTokens& out;
  std::string text;  // from the root on
};

const VocabularyTrie::StringTokens& VocabularyTrie::stringTokens(const StringScan& scan) const {
  const std::lock_guard<std::mutex> lock(mutex);
  std::unique_ptr<const StringTokens>& known = strings[scan.state()];
  if (known == nullptr) {
    auto found = std::make_unique<StringTokens>(nIds);
    Filling(*this, *found).walk(kRoot, scan, 0);
    std::stable_sort(found->counted.begin(), found->counted.end(),
                     [](const auto& a, const auto& b) { return a.characters < b.characters; });
    found->counted.shrink_to_fit();
    found->exits.shrink_to_fit();
    known = std::move(found);
  }
  return *known;
}

}  // namespace engine
