#include "engine/grammar.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "engine/chat_format.h"

namespace engine {

namespace {

uint8_t byteAt(const std::string& text, size_t at) {
  return static_cast<uint8_t>(text[at]);
}

// Makes choices of choices flat, the innermost first.
class Flattening {
 public:
  Flattening(Grammar& unfinished, size_t maxAlternatives)
      : grammar(unfinished), most(maxAlternatives), marks(unfinished.nodes.size(), Mark::New) {}

  GrammarProblem run(NodeId& problemNode) {
    for (NodeId id = 0; id < grammar.nodes.size(); ++id) {
      const GrammarProblem problem = visit(id, problemNode);
      if (problem != GrammarProblem::None) {
        return problem;
      }
    }
    return GrammarProblem::None;
  }

 private:
  enum class Mark : uint8_t { New, Open, Done };

  // Depth first without recursion: chains of references may be as long as the grammar.
  GrammarProblem visit(NodeId from, NodeId& problemNode) {
    std::vector<NodeId> open = {from};
    while (!open.empty()) {
      const NodeId id = open.back();
      auto* choice = std::get_if<ChoiceNode>(&grammar.nodes[id]);
      if (choice == nullptr || marks[id] == Mark::Done) {
        open.pop_back();
        continue;
      }
      problemNode = id;
      if (marks[id] == Mark::Open) {
        if (!flatten(*choice)) {
          return GrammarProblem::TooManyAlternatives;
        }
        marks[id] = Mark::Done;
        open.pop_back();
        continue;
      }
      marks[id] = Mark::Open;
      for (const NodeId alternative : choice->alternatives) {
        if (marks[alternative] == Mark::Open) {
          return GrammarProblem::EndlessChoice;
        }
        open.push_back(alternative);
      }
    }
    return GrammarProblem::None;
  }

  bool flatten(ChoiceNode& choice) const {
    std::vector<NodeId> flat;
    const auto add = [&](NodeId id) {
      if (std::find(flat.begin(), flat.end(), id) == flat.end()) {
        flat.push_back(id);
      }
      return flat.size() <= most;
    };
    for (const NodeId id : choice.alternatives) {
      const auto* inner = std::get_if<ChoiceNode>(&grammar.nodes[id]);
      if (inner == nullptr) {
        if (!add(id)) {
          return false;
        }
        continue;
      }
      for (const NodeId alternative : inner->alternatives) {
        if (!add(alternative)) {
          return false;
        }
      }
    }
    choice.alternatives = std::move(flat);
    return true;
  }

  Grammar& grammar;
  size_t most;
  std::vector<Mark> marks;
};

// The least number of levels of a node's texts, by those of its parts as far as they are known.
class Heights {
 public:
  Heights(const std::vector<GrammarNode>& grammarNodes, std::vector<uint32_t>& known)
      : nodes(grammarNodes), heights(known) {}

  void find() {
    heights.assign(nodes.size(), Grammar::kEndless);
    // Parts have mostly been added behind what they are parts of.
    for (bool changed = true; changed;) {
      changed = false;
      for (size_t id = nodes.size(); id-- > 0;) {
        const uint32_t height = std::visit([&](const auto& node) { return of(node); }, nodes[id]);
        changed |= height < heights[id];
        heights[id] = std::min(height, heights[id]);
      }
    }
  }

 private:
  static uint32_t ifAny(bool any) { return any ? 0 : Grammar::kEndless; }
  static uint32_t oneMore(uint32_t height) {
    return height < kMaxNesting ? height + 1 : Grammar::kEndless;
  }

  uint32_t of(const LiteralsNode& node) const { return ifAny(!node.texts.empty()); }
  uint32_t of(const StringNode& node) const { return ifAny(node.minLength <= node.maxLength); }
  uint32_t of(const NumberNode& node) const { return ifAny(!node.form.isEmpty()); }
  uint32_t of(const ControlNode&) const { return 0; }
  uint32_t of(const FreeTextNode&) const { return 0; }

  uint32_t of(const ArrayNode& node) const {
    uint32_t height = ifAny(node.minItems <= node.maxItems);
    for (size_t i = 0; i < std::min<size_t>(node.minItems, node.prefix.size()); ++i) {
      height = std::max(height, heights[node.prefix[i]]);
    }
    if (node.minItems > node.prefix.size()) {
      height = std::max(height, node.items == kNoNode ? Grammar::kEndless : heights[node.items]);
    }
    return oneMore(height);
  }

  uint32_t of(const ObjectNode& node) const { return oneMore(ofRequired(node.properties)); }

  uint32_t ofRequired(const EntryList& list) const {
    uint32_t height = 0;
    for (const EntryList::Entry& entry : list.entries()) {
      if (entry.required && entry.value != kNoNode) {
        height = std::max(height, heights[entry.value]);
      }
    }
    return height;
  }

  uint32_t of(const EntriesNode& node) const {
    if (!node.single) {
      return ofRequired(node.entries);
    }
    uint32_t height = Grammar::kEndless;
    for (const EntryList::Entry& entry : node.entries.entries()) {
      height = std::min(height, heights[entry.value]);
    }
    return height;
  }

  uint32_t of(const ChoiceNode& node) const {
    uint32_t height = Grammar::kEndless;
    for (const NodeId id : node.alternatives) {
      height = std::min(height, heights[id]);
    }
    return height;
  }

  uint32_t of(const SequenceNode& node) const {
    uint32_t height = 0;
    for (const NodeId id : node.parts) {
      height = std::max(height, heights[id]);
    }
    return height;
  }

  const std::vector<GrammarNode>& nodes;
  std::vector<uint32_t>& heights;
};

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<uint8_t>(c) < 0x80; });
}

bool isAscii(const EntryList& list) {
  return std::all_of(list.entries().begin(), list.entries().end(),
                     [](const EntryList::Entry& entry) { return isAscii(entry.text); });
}

bool isAscii(const GrammarNode& node) {
  if (const auto* literals = std::get_if<LiteralsNode>(&node)) {
    return std::all_of(literals->texts.begin(), literals->texts.end(),
                       [](const std::string& text) { return isAscii(text); });
  }
  if (const auto* object = std::get_if<ObjectNode>(&node)) {
    return isAscii(object->properties);
  }
  const auto* entries = std::get_if<EntriesNode>(&node);
  return entries == nullptr || isAscii(entries->entries);
}

}  // namespace

EntryList::EntryList(std::vector<Entry> entriesInOrder)
    : list(std::move(entriesInOrder)), sorted(list.size()), required(list.size() + 1) {
  std::iota(sorted.begin(), sorted.end(), 0U);
  std::sort(sorted.begin(), sorted.end(),
            [&](uint32_t a, uint32_t b) { return list[a].text < list[b].text; });
  required[list.size()] = static_cast<uint32_t>(list.size());
  for (size_t i = list.size(); i-- > 0;) {
    required[i] = list[i].required ? static_cast<uint32_t>(i) : required[i + 1];
  }
}

EntryList::Range EntryList::narrowed(const Range& range, uint8_t byte) const {
  // No text of the range ends before the byte: a text is the beginning of no other.
  const auto begin = sorted.begin() + range.begin;
  const auto end = sorted.begin() + range.end;
  const auto first = std::partition_point(
      begin, end, [&](uint32_t i) { return byteAt(list[i].text, range.nBytes) < byte; });
  const auto last = std::partition_point(
      first, end, [&](uint32_t i) { return byteAt(list[i].text, range.nBytes) == byte; });
  return {static_cast<uint32_t>(first - sorted.begin()),
          static_cast<uint32_t>(last - sorted.begin()), range.nBytes + 1};
}

const EntryList::Entry* EntryList::find(std::string_view text) const {
  const auto found = std::partition_point(sorted.begin(), sorted.end(),
                                          [&](uint32_t i) { return list[i].text < text; });
  return found != sorted.end() && list[*found].text == text ? &list[*found] : nullptr;
}

std::string_view textOf(GuardedMark mark) {
  return mark == GuardedMark::CallBegin ? kCallBegin : kArgumentEnd;
}

uint64_t keyHash(std::string_view key) {
  uint64_t hash = kEmptyKeyHash;
  for (const char c : key) {
    hash = extendedKeyHash(hash, static_cast<uint8_t>(c));
  }
  return hash;
}

GrammarProblem finish(Grammar& grammar, size_t maxAlternatives, NodeId& problemNode) {
  const GrammarProblem problem = Flattening(grammar, maxAlternatives).run(problemNode);
  if (problem == GrammarProblem::None) {
    Heights(grammar.nodes, grammar.heights).find();
    grammar.isAscii = std::all_of(grammar.nodes.begin(), grammar.nodes.end(),
                                  [](const GrammarNode& node) { return isAscii(node); });
  }
  return problem;
}

}  // namespace engine
