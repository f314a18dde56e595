#include "engine/grammar_machine.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>

namespace engine {

namespace {

constexpr uint32_t kMostLineFeeds = 2;   // in front
constexpr uint32_t kSpacesOfALevel = 4;  // of indentation
constexpr size_t kFewPlaces = 16;

uint64_t mixed(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 31U);
}

}  // namespace

GrammarMachine::GrammarMachine(const Grammar& textGrammar, bool speltControls)
    : grammar(textGrammar), spelt(speltControls), usedKeys(1) {
  add({.special = Special::End});
}

GrammarMachine::Places GrammarMachine::begin(bool lineFeeds) {
  Places places;
  start(grammar.root, 0, places);
  if (lineFeeds) {
    emit({.special = Special::Front}, places);
  }
  return places;
}

void GrammarMachine::step(const Places& from, uint8_t byte, Places& next) {
  next.clear();
  for (const Place place : from) {
    feed(place, byte, next);
  }
  distinct(next);
}

void GrammarMachine::advance(const Places& from, std::string_view text, Places& next) {
  next.clear();
  Places current;
  Places following;
  for (const Place place : from) {
    current.assign(1, place);
    for (const char c : text) {
      step(current, static_cast<uint8_t>(c), following);
      current.swap(following);
    }
    next.insert(next.end(), current.begin(), current.end());
  }
  distinct(next);
}

void GrammarMachine::advanceControl(const Places& from, std::string_view mark, Places& next) {
  next.clear();
  for (const Place place : from) {
    if (controlAt(place) == mark) {
      resume(frames[place].parent, next);
    }
  }
  distinct(next);
}

bool GrammarMachine::isComplete(const Places& places) const {
  return std::any_of(places.begin(), places.end(),
                     [&](Place place) { return frames[place].special == Special::End; });
}

std::string_view GrammarMachine::controlAt(Place place) const {
  const Frame& frame = frames[place];
  if (spelt || frame.node == kNoNode) {
    return {};
  }
  const auto* control = std::get_if<ControlNode>(&grammar.nodes[frame.node]);
  return control == nullptr ? std::string_view() : control->mark;
}

bool GrammarMachine::isWithinCharacter(const Places& places) const {
  return std::any_of(places.begin(), places.end(),
                     [&](Place place) { return frames[place].scan.isWithinBytes(); });
}

bool GrammarMachine::inside(Place place, Inside& out) const {
  const Frame& frame = frames[place];
  if (frame.phase != Phase::Inside) {
    return false;
  }
  out = {.scan = frame.scan, .isKey = frame.special == Special::FreeKey};
  if (!out.isKey) {
    if (const auto* node = std::get_if<StringNode>(&grammar.nodes[frame.node])) {
      out.minLength = node->minLength - std::min(frame.count, node->minLength);
      if (node->maxLength != kUnbounded) {
        out.maxLength = node->maxLength - std::min(frame.count, node->maxLength);
      }
    }
  }
  return true;
}

void GrammarMachine::leave(Place place, std::string_view text, Places& next) {
  next.clear();
  Frame frame = frames[place];
  if (frame.special == Special::FreeKey) {
    for (const char c : text) {
      frame.hash = extendedKeyHash(frame.hash, static_cast<uint8_t>(c));
    }
    closeFreeKey(frame, next);
  } else {
    resume(frame.parent, next);
  }
  distinct(next);
}

void GrammarMachine::forgetSince(const Bookmark& mark) {
  frames.resize(mark.frames);
  usedKeys.resize(mark.keys);
}

void GrammarMachine::keepOnly(Places& places) {
  std::vector<Frame> kept = {frames.front()};
  std::unordered_map<Place, Place> numbers = {{0, 0}};
  std::vector<Place> chain;
  for (Place& place : places) {
    chain.clear();
    for (Place at = place; numbers.find(at) == numbers.end(); at = frames[at].parent) {
      chain.push_back(at);
    }
    for (; !chain.empty(); chain.pop_back()) {
      Frame frame = frames[chain.back()];
      frame.parent = numbers[frame.parent];
      numbers[chain.back()] = static_cast<Place>(kept.size());
      kept.push_back(frame);
    }
    place = numbers[place];
  }
  frames = std::move(kept);
}

GrammarMachine::Place GrammarMachine::add(const Frame& frame) {
  frames.push_back(frame);
  Frame& added = frames.back();
  uint64_t hash = mixed(frames[added.parent].identity, added.node);
  hash = mixed(hash, (static_cast<uint64_t>(added.special) << 24U) |
                         (static_cast<uint64_t>(added.phase) << 16U) |
                         (static_cast<uint64_t>(added.space) << 8U) |
                         static_cast<uint64_t>(added.isFree));
  hash = mixed(hash, (static_cast<uint64_t>(added.spaces) << 32U) | added.count);
  hash = mixed(hash, (static_cast<uint64_t>(added.position) << 32U) | added.range.nBytes);
  hash = mixed(hash, (static_cast<uint64_t>(added.range.begin) << 32U) | added.range.end);
  hash = mixed(hash, added.hash);
  hash = mixed(hash, usedKeys[added.used].hash ^ added.used);
  hash = mixed(hash, added.scan.state());
  added.identity = mixed(hash, added.number.identity());
  return static_cast<Place>(frames.size() - 1);
}

// Places that are alike are one: in the order of their first.
void GrammarMachine::distinct(Places& places) const {
  if (places.size() < 2) {
    return;
  }
  size_t nKept = 0;
  if (places.size() <= kFewPlaces) {
    for (const Place place : places) {
      const auto end = places.begin() + static_cast<std::ptrdiff_t>(nKept);
      const auto same = std::find_if(places.begin(), end, [&](Place other) {
        return frames[other].identity == frames[place].identity;
      });
      if (same == end) {
        places[nKept++] = place;
      }
    }
  } else {
    std::unordered_set<uint64_t> seen;
    for (const Place place : places) {
      if (nKept < kMaxPlaces && seen.insert(frames[place].identity).second) {
        places[nKept++] = place;
      }
    }
  }
  places.resize(nKept);
}

// Where a text of the node begins, what follows it being the parent's. Nothing where it would nest
// too deep.
void GrammarMachine::start(NodeId node, Place parent, Places& out) {
  const auto* choice = std::get_if<ChoiceNode>(&grammar.nodes[node]);
  if (choice == nullptr) {
    startOne(node, parent, out);
    return;
  }
  for (const NodeId alternative : choice->alternatives) {
    startOne(alternative, parent, out);
  }
}

void GrammarMachine::startOne(NodeId node, Place parent, Places& out) {
  if (!fits(node, parent)) {
    return;
  }
  const GrammarNode& form = grammar.nodes[node];
  Frame frame{.parent = parent, .node = node, .depth = frames[parent].depth};
  if (const auto* sequence = std::get_if<SequenceNode>(&form)) {
    if (sequence->parts.size() > 1) {
      frame.count = 1;
      parent = add(frame);
    }
    start(sequence->parts.front(), parent, out);
    return;
  }
  if (const auto* literals = std::get_if<LiteralsNode>(&form)) {
    frame.range = {0, static_cast<uint32_t>(literals->texts.size()), 0};
  } else if (const auto* entries = std::get_if<EntriesNode>(&form)) {
    frame.range = entries->entries.all();
  } else if (std::holds_alternative<FreeTextNode>(form)) {
    frame.phase = Phase::Inside;
    frame.scan = StringScan(StringKind::Text, grammar.guarded);
  } else if (std::holds_alternative<ArrayNode>(form) || std::holds_alternative<ObjectNode>(form)) {
    ++frame.depth;
  }
  emit(frame, out);
}

// What is around a text goes on behind its end.
void GrammarMachine::resume(Place place, Places& out) {
  const Frame frame = frames[place];
  const auto* sequence =
      frame.node == kNoNode ? nullptr : std::get_if<SequenceNode>(&grammar.nodes[frame.node]);
  if (sequence == nullptr) {
    out.push_back(place);
    return;
  }
  const NodeId part = sequence->parts[frame.count];
  Place parent = frame.parent;
  if (frame.count + 1 < sequence->parts.size()) {
    Frame rest = frame;
    ++rest.count;
    parent = add(rest);
  }
  start(part, parent, out);
}

void GrammarMachine::feed(Place place, uint8_t byte, Places& out) {
  const Frame frame = frames[place];  // frames may move
  switch (frame.special) {
    case Special::End:
      return;
    case Special::Front:
      feedFront(frame, byte, out);
      return;
    case Special::FreeKey:
      feedFreeKey(frame, byte, out);
      return;
    case Special::None:
      break;
  }
  std::visit([&](const auto& node) { feedNode(node, place, frame, byte, out); },
             grammar.nodes[frame.node]);
}

void GrammarMachine::feedStart(NodeId node, const Frame& parent, uint8_t byte, Places& out) {
  if (scratch.size() == scratchDepth) {
    scratch.emplace_back();
  }
  Places& begun = scratch[scratchDepth++];
  begun.clear();
  start(node, add(parent), begun);
  for (const Place place : begun) {
    feed(place, byte, out);
  }
  --scratchDepth;
}

void GrammarMachine::feedFront(const Frame& frame, uint8_t byte, Places& out) {
  if (byte != '\n') {
    return;
  }
  start(grammar.root, 0, out);
  if (frame.count + 1 < kMostLineFeeds) {
    emit({.special = Special::Front, .count = frame.count + 1}, out);
  }
}

// White space between two parts of an array or object. Behind a part it stands before the end
// alone.
bool GrammarMachine::feedSpace(const Frame& frame, uint8_t byte, bool canEnd, Places& out) {
  Frame next = frame;
  if (byte == ' ' && frame.phase == Phase::Next && frame.space == Space::None) {
    next.space = Space::Blank;
  } else if (byte == '\n' && frame.space == Space::None &&
             (frame.phase != Phase::After || canEnd)) {
    next.space = Space::Lines;
  } else if (byte == ' ' && frame.space == Space::Lines &&
             frame.spaces < kSpacesOfALevel * frame.depth) {
    ++next.spaces;
  } else {
    return false;
  }
  emit(next, out);
  return true;
}

void GrammarMachine::feedNode(const LiteralsNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  const auto at = [&](const std::string& text) {
    return static_cast<uint8_t>(text[frame.range.nBytes]);
  };
  const auto end = node.texts.begin() + frame.range.end;
  const auto first = std::partition_point(node.texts.begin() + frame.range.begin, end,
                                          [&](const auto& text) { return at(text) < byte; });
  const auto last =
      std::partition_point(first, end, [&](const auto& text) { return at(text) == byte; });
  if (first == last) {
    return;
  }
  frame.range = {static_cast<uint32_t>(first - node.texts.begin()),
                 static_cast<uint32_t>(last - node.texts.begin()), frame.range.nBytes + 1};
  // Of texts with the same beginning the shortest comes first.
  if (first->size() == frame.range.nBytes) {
    resume(frame.parent, out);
    ++frame.range.begin;
  }
  if (frame.range.begin < frame.range.end) {
    emit(frame, out);
  }
}

void GrammarMachine::feedNode(const StringNode& node, Place place, Frame frame, uint8_t byte,
                              Places& out) {
  if (frame.phase == Phase::Open) {
    if (byte == '"') {
      frame.phase = Phase::Inside;
      frame.scan = StringScan(StringKind::Value, grammar.guarded);
      emit(frame, out);
    }
    return;
  }
  const size_t before = frame.scan.state();
  switch (frame.scan.step(byte)) {
    case StringScan::Step::Refused:
      return;
    case StringScan::Step::Closed:
      if (frame.count >= node.minLength) {
        resume(frame.parent, out);
      }
      return;
    case StringScan::Step::Inside:
      break;
  }
  bool counted = false;
  if (frame.scan.beganCharacter()) {
    if (frame.count >= node.maxLength) {
      return;
    }
    counted = node.maxLength != kUnbounded || frame.count < node.minLength;
    frame.count += static_cast<uint32_t>(counted);
  }
  // Text in which nothing changes stays in its place.
  if (!counted && frame.scan.state() == before) {
    out.push_back(place);
  } else {
    emit(frame, out);
  }
}

void GrammarMachine::feedNode(const FreeTextNode&, Place place, Frame frame, uint8_t byte,
                              Places& out) {
  const size_t before = frame.scan.state();
  switch (frame.scan.step(byte)) {
    case StringScan::Step::Refused:
      return;
    case StringScan::Step::Closed:
      resume(frame.parent, out);
      return;
    case StringScan::Step::Inside:
      break;
  }
  if (frame.scan.state() == before) {
    out.push_back(place);
  } else {
    emit(frame, out);
  }
}

void GrammarMachine::feedNode(const NumberNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  if (!frame.number.step(node.form, byte)) {
    return;
  }
  // The text does not tell whether the number ends: both are followed.
  if (frame.number.isComplete(node.form)) {
    resume(frame.parent, out);
  }
  emit(frame, out);
}

NodeId GrammarMachine::elementOf(const ArrayNode& node, const Frame& frame) const {
  if (frame.count >= node.maxItems) {
    return kNoNode;
  }
  const NodeId element = frame.count < node.prefix.size() ? node.prefix[frame.count] : node.items;
  return element != kNoNode && grammar.fits(element, frame.depth) ? element : kNoNode;
}

void GrammarMachine::feedNode(const ArrayNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  if (frame.phase == Phase::Open) {
    if (byte == '[') {
      frame.phase = Phase::First;
      emit(frame, out);
    }
    return;
  }
  const bool canEnd = frame.phase != Phase::Next && frame.count >= node.minItems;
  if (feedSpace(frame, byte, canEnd, out)) {
    return;
  }
  if (byte == ']') {
    if (canEnd) {
      resume(frame.parent, out);
    }
    return;
  }
  const NodeId element = elementOf(node, frame);
  if (element == kNoNode) {
    return;
  }
  if (frame.phase == Phase::After) {
    if (byte == ',' && frame.space == Space::None) {
      frame.phase = Phase::Next;
      emit(frame, out);
    }
    return;
  }
  frame.phase = Phase::After;
  frame.space = Space::None;
  frame.spaces = 0;
  ++frame.count;
  feedStart(element, frame, byte, out);
}

bool GrammarMachine::admitsEntry(const EntryList& list, const Frame& frame, uint32_t entry) const {
  const NodeId value = list.entries()[entry].value;
  return entry >= frame.position && entry <= list.nextRequired(frame.position) &&
         (value == kNoNode || grammar.fits(value, frame.depth));
}

bool GrammarMachine::admitsAny(const EntryList& list, const Frame& frame,
                               const EntryList::Range& range) const {
  for (uint32_t i = range.begin; i < range.end; ++i) {
    if (admitsEntry(list, frame, list.entryAt(i))) {
      return true;
    }
  }
  return false;
}

bool GrammarMachine::admitsFreeKey(const ObjectNode& node, const Frame& frame) const {
  const EntryList& list = node.properties;
  return node.additional != kNoNode && frame.count < kMaxAdditional &&
         list.nextRequired(frame.position) == list.entries().size() &&
         grammar.fits(node.additional, frame.depth);
}

void GrammarMachine::feedNode(const ObjectNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  const EntryList& list = node.properties;
  switch (frame.phase) {
    case Phase::Open:
      if (byte == '{') {
        frame.phase = Phase::First;
        emit(frame, out);
      }
      return;
    case Phase::Key: {
      const EntryList::Range range = list.narrowed(frame.range, byte);
      if (!admitsAny(list, frame, range)) {
        return;
      }
      frame.range = range;
      const uint32_t entry = list.entryAt(range.begin);
      if (list.entries()[entry].text.size() == range.nBytes) {
        frame.phase = Phase::Value;
        frame.position = entry + 1;
        frame.range = {};
      }
      emit(frame, out);
      return;
    }
    case Phase::Colon:
      if (byte == ':') {
        frame.phase = Phase::Value;
        emit(frame, out);
      }
      return;
    case Phase::Value: {
      if (byte == ' ' && frame.space == Space::None) {
        frame.space = Space::Blank;
        emit(frame, out);
        return;
      }
      const NodeId value =
          frame.isFree ? node.additional : list.entries()[frame.position - 1].value;
      frame.phase = Phase::After;
      frame.space = Space::None;
      feedStart(value, frame, byte, out);
      return;
    }
    default:
      break;
  }
  const bool canEnd =
      frame.phase != Phase::Next && list.nextRequired(frame.position) == list.entries().size();
  if (feedSpace(frame, byte, canEnd, out)) {
    return;
  }
  if (byte == '}') {
    if (canEnd) {
      resume(frame.parent, out);
    }
  } else if (byte == '"' && frame.phase != Phase::After) {
    beginKey(node, frame, out);
  } else if (byte == ',' && frame.phase == Phase::After && frame.space == Space::None &&
             (admitsFreeKey(node, frame) || admitsAny(list, frame, list.all()))) {
    frame.phase = Phase::Next;
    emit(frame, out);
  }
}

// Behind the opening quote.
void GrammarMachine::beginKey(const ObjectNode& node, Frame frame, Places& out) {
  const EntryList& list = node.properties;
  frame.space = Space::None;
  frame.spaces = 0;
  const EntryList::Range range = list.narrowed(list.all(), '"');
  if (admitsAny(list, frame, range)) {
    Frame key = frame;
    key.phase = Phase::Key;
    key.range = range;
    emit(key, out);
  }
  if (admitsFreeKey(node, frame)) {
    frame.phase = Phase::Colon;
    const Place object = add(frame);
    emit({.parent = object,
          .special = Special::FreeKey,
          .phase = Phase::Inside,
          .depth = frame.depth,
          .hash = kEmptyKeyHash,
          .scan = StringScan(StringKind::Key, grammar.guarded)},
         out);
  }
}

void GrammarMachine::feedFreeKey(Frame frame, uint8_t byte, Places& out) {
  switch (frame.scan.step(byte)) {
    case StringScan::Step::Refused:
      return;
    case StringScan::Step::Closed:
      closeFreeKey(frame, out);
      return;
    case StringScan::Step::Inside:
      frame.hash = extendedKeyHash(frame.hash, byte);
      emit(frame, out);
  }
}

// A key that the object has or may have by its schema does not end here; another one with the same
// hash does not either, which is no harm: it can go on.
void GrammarMachine::closeFreeKey(const Frame& key, Places& out) {
  Frame object = frames[key.parent];
  const ObjectNode& node = objectOf(object);
  if (std::binary_search(node.knownKeys.begin(), node.knownKeys.end(), key.hash)) {
    return;
  }
  for (uint32_t used = object.used; used != 0; used = usedKeys[used].before) {
    if (usedKeys[used].hash == key.hash) {
      return;
    }
  }
  usedKeys.push_back({key.hash, object.used});
  object.used = static_cast<uint32_t>(usedKeys.size() - 1);
  object.position = static_cast<uint32_t>(node.properties.entries().size());
  object.isFree = true;
  ++object.count;
  emit(object, out);
}

void GrammarMachine::feedNode(const EntriesNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  const EntryList& list = node.entries;
  frame.range = list.narrowed(frame.range, byte);
  if (!admitsAny(list, frame, frame.range)) {
    return;
  }
  const uint32_t index = list.entryAt(frame.range.begin);
  const EntryList::Entry& entry = list.entries()[index];
  if (entry.text.size() > frame.range.nBytes) {
    emit(frame, out);
  } else if (entry.value == kNoNode) {
    resume(frame.parent, out);
  } else if (node.single) {
    start(entry.value, frame.parent, out);
  } else {
    frame.position = index + 1;
    frame.range = list.all();
    const Place rest = add(frame);
    start(entry.value, rest, out);
  }
}

void GrammarMachine::feedNode(const ControlNode& node, Place, Frame frame, uint8_t byte,
                              Places& out) {
  if (!spelt || byte != static_cast<uint8_t>(node.mark[frame.count])) {
    return;
  }
  if (++frame.count == node.mark.size()) {
    resume(frame.parent, out);
  } else {
    emit(frame, out);
  }
}

}  // namespace engine
