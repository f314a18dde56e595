// The automaton of a grammar: reads a text byte by byte and tells what may follow.
//
//   GrammarMachine machine(*grammar, spelt);
//   GrammarMachine::Places places = machine.begin(false), next;
//   machine.step(places, '{', next);   // next is empty where no text of the grammar goes on so
//
// A place is what the text so far is the beginning of: the innermost thing that has begun, and
// those around it, up to the root. There are several where a schema has several alternatives and
// the text does not tell yet which it is. From every place some text leads to the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "engine/grammar.h"
#include "engine/number_scan.h"
#include "engine/string_scan.h"

namespace engine {

// One thread at a time.
class GrammarMachine {
 public:
  using Place = uint32_t;
  using Places = std::vector<Place>;

  // So many places are followed; of more, those of alternatives that stand first in the schema.
  static constexpr size_t kMaxPlaces = 1'024;

  // The grammar stays where it is. speltControls: control tokens are written as the text of their
  // names.
  GrammarMachine(const Grammar& textGrammar, bool speltControls);

  // Where a text begins. lineFeeds: up to two may stand in front.
  Places begin(bool lineFeeds);

  // Replaces next by where the byte leads from any of the places.
  void step(const Places& from, uint8_t byte, Places& next);
  // Replaces next by where the text leads. Each place is followed by itself, so that a text that
  // leads on from one of them leads on from all.
  void advance(const Places& from, std::string_view text, Places& next);
  // The same for a control token.
  void advanceControl(const Places& from, std::string_view mark, Places& next);

  bool isComplete(const Places& places) const;
  // The control token that is next at the place; empty where none is, and where they are spelt.
  std::string_view controlAt(Place place) const;
  // Whether the text so far ends within the bytes of a character that is no word of the schema.
  bool isWithinCharacter(const Places& places) const;

  // Of a place within a string, a free key or free text.
  struct Inside {
    StringScan scan;
    uint32_t minLength = 0;           // characters that have to begin before the end
    uint32_t maxLength = kUnbounded;  // that may begin
    bool isKey = false;               // whether it may end depends on what it is
  };
  bool inside(Place place, Inside& out) const;
  // Replaces next by where the end of it leads, if text comes before.
  void leave(Place place, std::string_view text, Places& next);

  // What has been made since can be forgotten: the scratch of looking ahead.
  struct Bookmark {
    size_t frames;
    size_t keys;
  };
  Bookmark bookmark() const { return {frames.size(), usedKeys.size()}; }
  void forgetSince(const Bookmark& mark);
  // Forgets all but what the places need, which get other numbers.
  void keepOnly(Places& places);
  size_t size() const { return frames.size(); }

 private:
  enum class Phase : uint8_t {
    Open,    // of a string, array or object: its first byte is to come
    First,   // an element or member, or the end
    Key,     // within a known key
    Colon,   // behind a free key
    Value,   // behind the colon
    After,   // behind an element or member
    Next,    // behind a comma
    Inside,  // of a string or free key
  };
  enum class Space : uint8_t { None, Blank, Lines };
  enum class Special : uint8_t { None, End, Front, FreeKey };

  // One level of a place. Levels are shared and never change.
  struct Frame {
    Place parent = 0;
    NodeId node = kNoNode;
    Special special = Special::None;
    Phase phase = Phase::Open;
    Space space = Space::None;
    bool isFree = false;    // the member's key is none of those that the schema lists
    uint32_t depth = 0;     // arrays and objects that are open, this one included
    uint32_t spaces = 0;    // behind the line feed
    uint32_t count = 0;     // elements, characters, parts, free keys, bytes, line feeds in front
    uint32_t position = 0;  // of the next entry
    uint32_t used = 0;      // free keys so far: a place in usedKeys
    EntryList::Range range{};
    uint64_t hash = 0;  // of the free key so far
    StringScan scan{};
    NumberScan number{};
    uint64_t identity = 0;
  };

  struct UsedKey {
    uint64_t hash;
    uint32_t before;
  };

  Place add(const Frame& frame);
  void emit(const Frame& frame, Places& out) { out.push_back(add(frame)); }
  bool fits(NodeId node, Place parent) const { return grammar.fits(node, frames[parent].depth); }
  void start(NodeId node, Place parent, Places& out);
  void startOne(NodeId node, Place parent, Places& out);
  void resume(Place place, Places& out);
  void feed(Place place, uint8_t byte, Places& out);
  void feedStart(NodeId node, const Frame& parent, uint8_t byte, Places& out);
  void feedFront(const Frame& frame, uint8_t byte, Places& out);
  bool feedSpace(const Frame& frame, uint8_t byte, bool canEnd, Places& out);

  void feedNode(const LiteralsNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const StringNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const NumberNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const ArrayNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const ObjectNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const EntriesNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const ControlNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const FreeTextNode& node, Place place, Frame frame, uint8_t byte, Places& out);
  void feedNode(const ChoiceNode&, Place, const Frame&, uint8_t, Places&) {}
  void feedNode(const SequenceNode&, Place, const Frame&, uint8_t, Places&) {}
  void feedFreeKey(Frame frame, uint8_t byte, Places& out);
  void beginKey(const ObjectNode& node, Frame frame, Places& out);
  void closeFreeKey(const Frame& key, Places& out);

  NodeId elementOf(const ArrayNode& node, const Frame& frame) const;
  bool admitsEntry(const EntryList& list, const Frame& frame, uint32_t entry) const;
  bool admitsAny(const EntryList& list, const Frame& frame, const EntryList::Range& range) const;
  bool admitsFreeKey(const ObjectNode& node, const Frame& frame) const;
  const ObjectNode& objectOf(const Frame& frame) const {
    return std::get<ObjectNode>(grammar.nodes[frame.node]);
  }
  void distinct(Places& places) const;

  const Grammar& grammar;
  bool spelt;
  std::vector<Frame> frames;      // [0] is the end
  std::vector<UsedKey> usedKeys;  // [0] is none
  std::deque<Places> scratch;     // by how far starting nests
  size_t scratchDepth = 0;
};

}  // namespace engine
