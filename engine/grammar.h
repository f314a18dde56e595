// Texts that a reply may be, as a graph of nodes: what compilers of schemas
// (engine/json_schema.h, engine/tool_grammar.h) make and the automaton (engine/grammar_machine.h)
// reads byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "engine/number_scan.h"

namespace engine {

using NodeId = uint32_t;
constexpr NodeId kNoNode = std::numeric_limits<NodeId>::max();
constexpr uint32_t kUnbounded = std::numeric_limits<uint32_t>::max();
constexpr uint32_t kMaxAdditional = 1'000;  // additional properties of one object
constexpr uint32_t kMaxNesting = 64;        // arrays and objects within one another

// One of several texts: sorted, all different, none empty.
struct LiteralsNode {
  std::vector<std::string> texts;
};

// A JSON string of so many characters.
struct StringNode {
  uint32_t minLength = 0;
  uint32_t maxLength = kUnbounded;
};

struct NumberNode {
  NumberForm form;
};

struct ArrayNode {
  std::vector<NodeId> prefix;  // the first elements
  NodeId items = kNoNode;      // all others; kNoNode: there are none
  uint32_t minItems = 0;
  uint32_t maxItems = kUnbounded;
};

// Texts of which one is read, each followed by a node. A text is the beginning of no other.
class EntryList {
 public:
  struct Entry {
    std::string text;
    NodeId value = kNoNode;  // kNoNode: the entry ends the list
    bool required = false;
  };

  // Entries that begin with the bytes that have been read, as a range of places in sorted order.
  struct Range {
    uint32_t begin = 0;
    uint32_t end = 0;
    uint32_t nBytes = 0;
    bool operator==(const Range&) const = default;
  };

  EntryList() = default;
  explicit EntryList(std::vector<Entry> entriesInOrder);

  const std::vector<Entry>& entries() const { return list; }
  Range all() const { return {0, static_cast<uint32_t>(sorted.size()), 0}; }
  // Those that go on with the byte.
  Range narrowed(const Range& range, uint8_t byte) const;
  // nullptr where there is none of that text.
  const Entry* find(std::string_view text) const;
  uint32_t entryAt(uint32_t place) const { return sorted[place]; }
  // Index of the first required entry from `position` on; the number of entries where there is
  // none.
  uint32_t nextRequired(uint32_t position) const { return required[position]; }

 private:
  std::vector<Entry> list;
  std::vector<uint32_t> sorted;    // indices by text
  std::vector<uint32_t> required;  // by position
};

struct ObjectNode {
  EntryList properties;               // text: the key in quotes, and a colon
  NodeId additional = kNoNode;        // value of other keys; kNoNode: there are none
  std::vector<uint64_t> knownKeys{};  // hashes (keyHash) of the properties' keys, sorted
};

struct ChoiceNode {
  std::vector<NodeId> alternatives;
};

struct SequenceNode {
  std::vector<NodeId> parts;  // at least one
};

// Entries in order, optional ones left out, up to the one that ends the list; or one of them alone.
struct EntriesNode {
  EntryList entries;
  bool single = false;
};

// A control token.
struct ControlNode {
  std::string_view mark;  // a constant of engine/chat_format.h
};

// Text up to the first end mark of a call's argument, which has a line feed before it, and the
// mark.
struct FreeTextNode {};

using GrammarNode = std::variant<LiteralsNode, StringNode, NumberNode, ArrayNode, ObjectNode,
                                 ChoiceNode, SequenceNode, EntriesNode, ControlNode, FreeTextNode>;

// The text that must not occur within a string, since readers of replies would take it for a mark.
// Words of a schema that contain it are spelt otherwise.
enum class GuardedMark : uint8_t { CallBegin, ArgumentEnd };

constexpr std::string_view kArgumentEnd = "</parameter>";
std::string_view textOf(GuardedMark mark);

// Hash of a key as it is spelt between its quotes, byte by byte.
constexpr uint64_t kEmptyKeyHash = 0xCBF29CE484222325U;
constexpr uint64_t extendedKeyHash(uint64_t hash, uint8_t byte) {
  return (hash ^ byte) * 0x100000001B3U;
}
uint64_t keyHash(std::string_view key);

// Immutable once it is finished: any number of threads.
struct Grammar {
  static constexpr uint32_t kEndless = std::numeric_limits<uint32_t>::max();

  std::vector<GrammarNode> nodes;
  NodeId root = kNoNode;
  GuardedMark guarded = GuardedMark::CallBegin;

  // What finish() finds out.
  std::vector<uint32_t> heights;  // levels of nesting that the text of a node has at least;
                                  // kEndless: it has none of up to kMaxNesting
  bool isAscii = true;            // all words of the schema are

  // Whether a text of the node fits where so many levels are open.
  bool fits(NodeId node, uint32_t depth) const {
    return heights[node] != kEndless && depth + heights[node] <= kMaxNesting;
  }
};

// Makes choices of choices choices of what these are made of, merges words, and finds the heights.
// Fails with the node that is a choice of itself, or one of more than maxAlternatives; problem is
// then which.
enum class GrammarProblem : uint8_t { None, EndlessChoice, TooManyAlternatives };
GrammarProblem finish(Grammar& grammar, size_t maxAlternatives, NodeId& problemNode);

}  // namespace engine
